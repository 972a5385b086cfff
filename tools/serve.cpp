/* zeb serve: offers functions that are run by commands. Functions are called on threads of the library. */
#include "command.h"
#include "member.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"

#include <atomic>
#include <cstdlib>
#include <map>

namespace tool
{

struct server_deleter {
    void operator()(zeb_rpcserver *server) const
    {
        zeb_rpcserver_destroy(&server);
    }
};
using server_owner = std::unique_ptr<zeb_rpcserver, server_deleter>;

/* The library passes nothing to a function but the request, so what it needs stands here. Constant while the
 * server runs. */
static std::map<std::string, std::string> commands; /* by function */
static bool progressLines = false, verbose = false;
static std::atomic<int> callsRunning{0};

/* ---- One call ---- */

static void answer(zeb_rpcrequest *request, const std::string &function, const command_result &result)
{
    if (result.status == 0 && result.output.size() <= INT32_MAX)
        zeb_rpcrequest_sendresult(request, result.output.data(), static_cast<int32_t>(result.output.size()));
    else if (result.status < 0)
        zeb_rpcrequest_senderror(request, 1,
                                 ("the command of '" + function + "' could not be started").c_str());
    else if (result.status > 0)
        zeb_rpcrequest_senderror(
            request, result.status,
            ("the command of '" + function + "' ended with exit status " + std::to_string(result.status))
                .c_str());
    else
        zeb_rpcrequest_senderror(request, 1, "the result is too long");
}

static int32_t on_call(zeb_rpcrequest *request, const void *data, int32_t length)
{
    callsRunning++;
    const std::string function(text_of(zeb_rpcrequest_getrpcname(request)));
    const std::string_view argument(static_cast<const char *>(data),
                                    length > 0 ? static_cast<size_t>(length) : 0);
    line_taker onLine;
    if (progressLines)
        onLine = [request](std::string_view line) {
            zeb_rpcrequest_sendprogress(request, line.data(), static_cast<int32_t>(line.size()));
        };
    const command_result result = run_command(commands[function], "ZEB_FUNCTION", function, argument, onLine);
    answer(request, function, result);
    if (verbose)
        say(escaped(function) + ": exit status " + std::to_string(result.status) + ", " +
            counted(result.output.size(), "octet"));
    callsRunning--;
    return 0;
}

/* ---- The server ---- */

static constexpr size_t mostFunctions = 63;

static exit_code read_functions(const serve_options &options)
{
    for (const std::string &text : options.functions) {
        const size_t sign = text.find('=');
        if (sign == std::string::npos || sign == 0 || !is_one_line(text.substr(0, sign)))
            return fail(exit_usage, "'" + escaped(text) + "' is no function: NAME=COMMAND");
        if (!commands.emplace(text.substr(0, sign), text.substr(sign + 1)).second)
            return fail(exit_usage, "function '" + escaped(text.substr(0, sign)) + "' is given twice");
    }
    if (commands.empty() || commands.size() > mostFunctions)
        return fail(exit_usage, "1 to " + std::to_string(mostFunctions) + " functions are needed");
    return exit_done;
}

/* Commands and what is read of them need more than the library gives its threads. */
static void widen_stacks()
{
    static constexpr char variable[] = "TAMBEK_THREAD_STACKSIZE";
    static constexpr long enough = 262144;
    if (std::atol(setting(variable, "0").c_str()) < enough)
        setenv(variable, std::to_string(enough).c_str(), 1);
}

static server_owner launch(const serve_options &options, const property_pairs &properties)
{
    server_owner server(zeb_rpcserver_create(options.server.c_str(), options.component.c_str()));
    if (server == nullptr)
        return nullptr;
    for (const auto &[function, command] : commands)
        if (zeb_rpcserver_addfunc(server.get(), function.c_str(), on_call) != 0)
            return nullptr;
    zeb_proplist *list = zeb_proplist_create();
    for (const auto &[name, value] : properties)
        zeb_proplist_put(list, name.c_str(), value.c_str());
    const bool good = zeb_rpcserver_setcbmode(server.get(), options.parallel ? 1 : 0) == 0 &&
                      zeb_rpcserver_setaddrprops(server.get(), list) == 0 &&
                      zeb_rpcserver_launch(server.get()) == 0;
    zeb_proplist_destroy(&list);
    return good ? std::move(server) : nullptr;
}

/* Calls that still run may end by themselves; those that do not are ended. */
static void wait_for_calls()
{
    static constexpr double grace = 5, pause = 0.01;
    const double end = steady_clock() + grace;
    while (callsRunning > 0 && steady_clock() < end)
        sleep_for(pause);
    if (callsRunning > 0)
        stop_commands();
    while (callsRunning > 0 && steady_clock() < end + grace)
        sleep_for(pause);
}

static void wait_for_stop(double seconds)
{
    static constexpr double pause = 3600;
    const double end = steady_clock() + seconds;
    while (!interrupted() && (seconds == 0 || steady_clock() < end))
        sleep_for(seconds == 0 ? pause : std::min(pause, end - steady_clock()));
}

exit_code serve(const common_options &common, const serve_options &options)
{
    property_pairs properties;
    exit_code code = check_server_name(options.server);
    if (code == exit_done)
        code = read_functions(options);
    if (code == exit_done)
        code = split_properties(options.properties, properties);
    if (code != exit_done)
        return code;
    progressLines = options.progressLines;
    verbose = common.verbose;
    widen_stacks();
    code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    server_owner server = launch(options, properties);
    if (server == nullptr) {
        zeb_shutdown_nowait();
        return fail(exit_refused, "the server could not be made known");
    }
    if (common.verbose)
        say("serving " + counted(commands.size(), "function") + " as " + escaped(options.server));
    wait_for_stop(options.seconds);
    zeb_rpcserver_shutdown(server.get());
    wait_for_calls();
    server.reset();
    zeb_shutdown();
    return exit_done;
}

} // namespace tool
