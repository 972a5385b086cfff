/* zeb call: calls a function at one server of a name, or at all of them. */
#include "address.h"
#include "input.h"
#include "member.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"

namespace tool
{

struct client_deleter {
    void operator()(zeb_rpcclient *client) const
    {
        zeb_rpcclient_destroy(&client);
    }
};
using client_owner = std::unique_ptr<zeb_rpcclient, client_deleter>;

struct invocation_deleter {
    void operator()(zeb_rpcinvocation *call) const
    {
        zeb_rpcinvocation_destroy(&call);
    }
};
using invocation_owner = std::unique_ptr<zeb_rpcinvocation, invocation_deleter>;

struct response_deleter {
    void operator()(zeb_rpcresponse *response) const
    {
        zeb_rpcresponse_destroy(&response);
    }
};
using response_owner = std::unique_ptr<zeb_rpcresponse, response_deleter>;

/* The servers of the name, as soon as there is one. The library's wait may end early and goes by whole
 * seconds, so it is asked again and again. */
static address_list find_servers(zeb_rpcclient *client, const call_options &options)
{
    static constexpr double pause = 0.02;
    const double until = steady_clock() + options.wait;
    address_list servers(zeb_rpcclient_getservers_wtimeout(client, options.server.c_str(), 0, 0));
    while (servers == nullptr && !interrupted() && steady_clock() < until) {
        sleep_for(pause);
        servers.reset(zeb_rpcclient_getservers_wtimeout(client, options.server.c_str(), 0, 0));
    }
    if (servers == nullptr || options.all)
        return servers;
    address_list first(zeb_laddrlist_create());
    zeb_laddrlist_add(first.get(), zeb_laddrlist_get(servers.get(), 0));
    return first;
}

/* ---- Responses ---- */

struct tally {
    const common_options &common;
    const call_options &options;
    int32_t asked = 0, results = 0, errors = 0;
};

static std::string_view data_of(const zeb_rpcresponse *response)
{
    int32_t length = 0;
    const void *data = zeb_rpcresponse_getdata(response, &length);
    if (data == nullptr || length < 1)
        return {};
    return {static_cast<const char *>(data), static_cast<size_t>(length)};
}

static std::string error_text(const zeb_rpcresponse *response)
{
    static constexpr int32_t serverGone = -2, noFunction = -3;
    int32_t code = 0;
    const char *said = zeb_rpcresponse_geterror(response, &code);
    if (code == serverGone)
        return "error -2: the server is gone";
    if (code == noFunction)
        return "error -3: the server has no such function";
    return "error " + std::to_string(code) + ": " + escaped(text_of(said));
}

/* An error has a text, or the code that only the library gives. */
static bool is_error(const zeb_rpcresponse *response)
{
    int32_t code = 0;
    return zeb_rpcresponse_geterror(response, &code) != nullptr || code != -1;
}

static void put_json(const zeb_rpcresponse *response)
{
    json line;
    const bool error = is_error(response);
    line["kind"] = error ? "error" : (zeb_rpcresponse_isresult(response) != 0 ? "result" : "progress");
    if (error) {
        int32_t code = 0;
        const char *said = zeb_rpcresponse_geterror(response, &code);
        line["code"] = code;
        line["message"] = text_of(said);
    } else if (is_utf8(data_of(response))) {
        line["body"] = data_of(response);
    } else {
        line["bodyBase64"] = base64(data_of(response));
    }
    line["server"] = address_json(zeb_rpcresponse_getaddr(response));
    put(line_of(line));
}

/* The server in front of what it said, where there are several. */
static std::string prefix(const tally &t, const zeb_rpcresponse *response)
{
    return t.options.all ? address_text(zeb_rpcresponse_getaddr(response)) + ": " : "";
}

static void put_response(const tally &t, const zeb_rpcresponse *response)
{
    if (t.common.json)
        put_json(response);
    else if (is_error(response))
        say(prefix(t, response) + error_text(response));
    else if (zeb_rpcresponse_isresult(response) == 0)
        say(prefix(t, response) + "progress: " + escaped(data_of(response)));
    else if (t.options.all)
        put(prefix(t, response) + escaped(data_of(response)) + "\n");
    else
        put(data_of(response));
}

static void take_responses(tally &t, zeb_rpcinvocation *call)
{
    while (zeb_rpcinvocation_isdone(call) == 0 && !interrupted()) {
        const response_owner response(zeb_rpcinvocation_getresponse(call, 1, 1000));
        if (response == nullptr)
            continue;
        put_response(t, response.get());
        if (is_error(response.get()))
            t.errors++;
        else if (zeb_rpcresponse_isresult(response.get()) != 0)
            t.results++;
    }
}

static exit_code outcome(const tally &t)
{
    if (t.results == t.asked)
        return exit_done;
    if (t.results + t.errors < t.asked)
        return fail(exit_partly, "stopped with " + std::to_string(t.asked - t.results - t.errors) + " of " +
                                     counted(static_cast<uint64_t>(t.asked), "answer") + " missing");
    return t.results > 0 ? exit_partly : exit_refused;
}

static exit_code call_servers(const common_options &common, const call_options &options,
                              const std::string &argument)
{
    const char *name = options.server.c_str();
    const client_owner client(zeb_rpcclient_create(&name, 1, options.component.c_str()));
    if (client == nullptr)
        return exit_refused; /* the library has said why */
    const address_list servers = find_servers(client.get(), options);
    if (servers == nullptr)
        return fail(interrupted() ? exit_partly : exit_time_out,
                    "no server is called '" + escaped(options.server) + "'");
    const invocation_owner call(zeb_rpcclient_invoke(client.get(), options.function.c_str(), servers.get(),
                                                     argument.data(), static_cast<int32_t>(argument.size())));
    if (call == nullptr)
        return fail(exit_partly, "the call could not be made");
    tally t{common, options, zeb_laddrlist_count(servers.get())};
    if (common.verbose)
        say(counted(static_cast<uint64_t>(t.asked), "server") + " called");
    take_responses(t, call.get());
    return outcome(t);
}

exit_code check_server_name(const std::string &name)
{
    if (name.empty() || !is_one_line(name))
        return fail(exit_usage, "the name of a server is one line");
    if (name.find('"') != std::string::npos)
        return fail(exit_usage, "the name of a server cannot hold '\"': clients could not ask for it");
    return exit_done;
}

exit_code call(const common_options &common, const call_options &options)
{
    exit_code code = check_server_name(options.server);
    if (code == exit_done && (options.function.empty() || !is_one_line(options.function)))
        code = fail(exit_usage, "the name of a function is one line");
    std::string argument;
    const bool fromInput = options.file == "-";
    if (code == exit_done && (options.body || options.file))
        code = read_body(options.body, fromInput ? std::nullopt : options.file, argument);
    if (code == exit_done)
        code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    code = call_servers(common, options, argument);
    zeb_shutdown_nowait();
    return code;
}

} // namespace tool
