#include "session.h"

namespace zebd
{

static constexpr std::string_view protocolVersion = "4";

static void reply(const session &session, engine &engine, outgoing item)
{
    engine.out.send(engine.out.context, session.id, std::move(item));
}

/* "Pid=4242; Home=/opt/app" gives 4242. */
static std::string pid_of(std::string_view selfId)
{
    static constexpr std::string_view name = "Pid=";
    if (!selfId.starts_with(name))
        return {};
    selfId.remove_prefix(name.size());
    return std::string(selfId.substr(0, selfId.find_first_not_of("0123456789")));
}

static bool handle_connect(session &session, engine &engine, const connect_request &request, std::string &why)
{
    session.formFactor = request.formFactor;
    session.selfId = request.selfId;
    session.pid = pid_of(request.selfId);
    const bool served = request.version == protocolVersion;
    if (!served)
        why = "protocol version '" + printable(request.version) + "' is not served";
    reply(session, engine, outgoing_connect_reply(engine.identity, session.id, served ? "" : why));
    return served;
}

static void handle_subscribe(session &session, engine &engine, subscribe_request &&request)
{
    const int32_t id = request.id;
    std::string why;
    const bool accepted = engine_up(engine, session.id, std::move(request), why);
    if (accepted && index_is_unindexed(engine.index, engine.lastSerial))
        session.unindexed.push_back(id);
    reply(session, engine, outgoing_status(id, accepted, accepted ? "subscribed" : why));
}

static bool handle_event(const session &session, engine &engine, const std::shared_ptr<event> &taken,
                         std::string &why)
{
    taken->takenAt = engine.now();
    return engine_take(engine, session.id, taken, why);
}

static bool handle(session &session, engine &engine, message &what, std::string &why)
{
    if (auto *connect = std::get_if<connect_request>(&what))
        return handle_connect(session, engine, *connect, why);
    if (auto *subscribe = std::get_if<subscribe_request>(&what))
        handle_subscribe(session, engine, std::move(*subscribe));
    else if (auto *unsubscribe = std::get_if<unsubscribe_request>(&what))
        engine_down(engine, session.id, unsubscribe->id);
    else if (auto *taken = std::get_if<std::shared_ptr<event>>(&what))
        return handle_event(session, engine, *taken, why);
    return true;
}

static void note(session &session, const message &what)
{
    if (std::holds_alternative<std::shared_ptr<event>>(what))
        session.events++;
    if (session.tap.taken != nullptr)
        session.tap.taken(session.tap.context, session.id, what);
}

bool session_take(session &session, engine &engine, std::string_view bytes, std::string &why)
{
    message_reader_feed(session.reader, bytes);
    message what;
    for (;;) {
        switch (message_reader_next(session.reader, what)) {
        case read_result::need_more:
            return true;
        case read_result::broken:
            why = session.reader.error;
            return false;
        case read_result::complete:
            note(session, what);
            if (!handle(session, engine, what, why))
                return false;
        }
    }
}

} // namespace zebd
