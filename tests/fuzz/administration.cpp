/* Requests on zebd's administration socket: whatever is asked, the answer is one object in one line of JSON
 * that says whether it was understood. Each line of the input is a request. */
#include "fuzz.h"

#include "admin.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

namespace
{

using namespace zebd;

constexpr connection_id client = 7;

/* A daemon with one client, which has two subscribers and told what is no UTF-8. */
struct host {
    engine routing;
    report_source source;

    host()
    {
        routing.out.send = [](void *, connection_id, outgoing) { return true; };
        routing.out.wake = [](void *, uint32_t) {};
        routing.now = []() -> int64_t { return 1000; };
        routing.identity = {"1", "node", "inst\xff", 7};
        up(1, "(\"@type=/a\xfe\")|!(\"sev>3\")", "(\"x\")");
        up(2, "null", "");
        source.context = this;
        source.routing = &routing;
        source.report = [](const void *context) {
            daemon_report report;
            report.identity = static_cast<const host *>(context)->routing.identity;
            report.subscribers = static_cast<const host *>(context)->routing.subscribers.size();
            return report;
        };
        source.clients = [](const void *) {
            client_report one;
            one.id = client;
            one.selfId = "Pid=99999999999999999999; Home=\xf0\x28";
            one.formFactor = "\xed\xa0\x80";
            return std::vector{one};
        };
        source.hasClient = [](const void *, connection_id id) { return id == client; };
    }

    void up(int32_t id, const char *subscription, const char *interest)
    {
        subscribe_request request;
        request.id = id;
        request.subscription = subscription;
        request.interest = interest;
        request.component = "\xc3";
        request.properties = {{"x", "\x80"}};
        std::string why;
        FUZZ_CHECK(engine_up(routing, client, std::move(request), why));
    }
};

const host &the_host()
{
    static const host only;
    return only;
}

void check_answer(std::string_view request)
{
    const admin_answer answer = admin_ask(the_host().source, request);
    FUZZ_CHECK(answer.line.ends_with('\n') && std::ranges::count(answer.line, '\n') == 1);
    const auto told = nlohmann::json::parse(answer.line, nullptr, false);
    FUZZ_CHECK(told.is_object() && told.contains("ok") && told["ok"].is_boolean());
    if (told["ok"].get<bool>()) {
        FUZZ_CHECK(answer.follow != admin_follow::trace || answer.connection == client);
        return;
    }
    FUZZ_CHECK(answer.follow == admin_follow::nothing);
    FUZZ_CHECK(told["error"].is_string() && !told["error"].get<std::string>().empty());
}

} // namespace

void fuzz_read(std::string_view input)
{
    fuzz::each_line(input, [](std::string_view line) { admin_ask(the_host().source, line); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::each_line({reinterpret_cast<const char *>(data), size}, check_answer);
    return 0;
}
