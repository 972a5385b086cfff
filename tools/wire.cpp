#include "wire.h"

#include "block.h"
#include "host.h"
#include "stop.h"
#include "text.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>
#include <zeb.h>

namespace tool
{

wire_connection::~wire_connection()
{
    if (fd >= 0)
        close(fd);
}

/* ---- Octets ---- */

static exit_code gone()
{
    return fail(exit_no_daemon, "the daemon is gone");
}

static exit_code write_all(const wire_connection &daemon, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = send(daemon.fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (count <= 0)
            return gone();
        text.remove_prefix(static_cast<size_t>(count));
    }
    return exit_done;
}

static exit_code read_more(wire_connection &daemon, double until)
{
    const exit_code code = receive_more(daemon.fd, until, daemon.pending);
    return code == exit_no_daemon ? gone() : code;
}

/* Takes the next COUNT octets. */
static exit_code take(wire_connection &daemon, size_t count, double until, std::string &octets)
{
    while (daemon.pending.size() < count)
        if (const exit_code code = read_more(daemon, until); code != exit_done)
            return code;
    octets = daemon.pending.substr(0, count);
    daemon.pending.erase(0, count);
    return exit_done;
}

/* Takes the lines of a message up to the empty one. */
static exit_code take_header(wire_connection &daemon, double until, std::string &header)
{
    static constexpr std::string_view end = "\r\n\r\n";
    size_t at = daemon.pending.find(end);
    while (at == std::string::npos) {
        if (const exit_code code = read_more(daemon, until); code != exit_done)
            return code;
        at = daemon.pending.find(end);
    }
    return take(daemon, at + end.size(), until, header);
}

/* What stands behind the last line beginning with NAME; a property before it may have the same name. */
static std::string_view value_of(std::string_view header, const std::string &name)
{
    const std::string start = "\r\n" + name + ": ";
    const size_t at = header.rfind(start);
    if (at == std::string_view::npos)
        return {};
    const size_t begin = at + start.size();
    return header.substr(begin, header.find("\r\n", begin) - begin);
}

static size_t number_of(std::string_view header, const std::string &name)
{
    const std::string_view text = value_of(header, name);
    size_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/* ---- Connecting and subscribing ---- */

exit_code wire_open(uint16_t port, wire_connection &daemon)
{
    daemon.fd = dial(port);
    const std::string where = "port " + std::to_string(port);
    if (daemon.fd < 0)
        return fail(exit_no_daemon, "no daemon on " + where);
    const std::string request = "POST /connect HTTP/1.1\r\nVersion: 4 \r\nFormFactor: abc\r\nSelfId: Pid=" +
                                std::to_string(getpid()) + "; Home=" + home_directory() + "\r\n\r\n";
    exit_code code = write_all(daemon, request);
    std::string reply;
    if (code == exit_done)
        code = take_header(daemon, steady_clock() + wirePatience, reply);
    if (code == exit_done && value_of(reply, "Result") == "success")
        return exit_done;
    return fail(exit_no_daemon, "what listens on " + where + " does not answer like a daemon");
}

exit_code wire_subscribe(wire_connection &daemon, const std::string &interest, bool deltas)
{
    const std::string request = "POST /subscribe HTTP/1.1\r\nContent-Length: 0\r\nSubscriberID: 1\r\n"
                                "Subscription: null\r\nComponent: zeb members\r\nMbrInterest: " +
                                interest + "\r\nMbrDeltas: " + (deltas ? "true" : "false") +
                                "\r\nnumberOfProperties: 0\r\n\r\n";
    exit_code code = write_all(daemon, request);
    std::string reply;
    if (code == exit_done)
        code = take_header(daemon, steady_clock() + wirePatience, reply);
    if (code != exit_done)
        return code == exit_time_out ? fail(code, "the daemon did not answer the subscription") : code;
    if (value_of(reply, "Result") == "success")
        return exit_done;
    return fail(exit_refused, "refused: " + escaped(value_of(reply, "Message")));
}

/* ---- Events ---- */

static json member_of(zeb_bb_seg *segment)
{
    static constexpr std::pair<const char *, const char *> names[] = {
        {"key", "key"},
        {"id", "id"},
        {"component", "component"},
        {"host", "hostname"},
        {"instance", "instancename"},
        {"tier", "tier"},
        {"tierid", "tierid"},
        {"subscription", "subscription"},
    };
    json member;
    for (const auto &[name, element] : names)
        if (const char *value = zeb_bb_seg_getelement(segment, element, nullptr); value != nullptr)
            member[name] = value;
    member["properties"] = json::array();
    const zeb_bb_elemlist *properties = zeb_bb_seg_getelements(zeb_bb_seg_getsegment(segment, "properties"));
    for (zeb_bb_elem *e = zeb_bb_elemlist_getfirst(properties); e != nullptr; e = zeb_bb_elemlist_getnext(e))
        member["properties"].push_back({{"name", text_of(zeb_bb_elem_getname(e))},
                                        {"value", text_of(zeb_bb_elem_getvalue(e, nullptr))}});
    return member;
}

/* The second letter of a segment's name says what became of the member. */
static void read_members(const std::string &octets, wire_event &event)
{
    const block_owner block(zeb_bb_body2block(octets.data(), static_cast<int32_t>(octets.size())));
    zeb_bb_seg *segment = zeb_bb_seglist_getfirst(zeb_bb_getsegments(block.get()));
    for (; segment != nullptr; segment = zeb_bb_seglist_getnext(segment)) {
        const std::string_view name = text_of(zeb_bb_seg_getname(segment));
        if (name.starts_with("delAddr"))
            event.removed.push_back(member_of(segment));
        else
            event.members.push_back(member_of(segment));
    }
}

exit_code wire_next(wire_connection &daemon, double until, wire_event &event)
{
    std::string header, body, addresses;
    exit_code code = take_header(daemon, until, header);
    if (code != exit_done)
        return code;
    const double end = steady_clock() + wirePatience; /* what has begun is on its way */
    code = take(daemon, number_of(header, "Content-Length"), end, body);
    if (code == exit_done)
        code = take(daemon, number_of(header, "AddrList-Length"), end, addresses);
    if (code != exit_done)
        return code;
    read_members(addresses, event);
    return exit_done;
}

} // namespace tool
