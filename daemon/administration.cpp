/* What administration is told of the server, and when somebody follows it. */
#include "log.h"
#include "serving.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace zebd
{

/* ---- Reports ---- */

static const server &server_of(const void *context)
{
    return *static_cast<const server *>(context);
}

static double seconds_since(const server &s, uint64_t begin)
{
    return static_cast<double>(uv_now(&s.loop) - begin) / 1000;
}

static size_t resident_bytes()
{
    std::ifstream file("/proc/self/statm");
    size_t size = 0, resident = 0;
    file >> size >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

static size_t open_clients(const server &s)
{
    return static_cast<size_t>(
        std::ranges::count_if(s.clients, [](const auto &each) { return !each.second->closing; }));
}

static daemon_report report_daemon(const void *context)
{
    const server &s = server_of(context);
    daemon_report report;
    report.identity = s.options->identity;
    report.pid = getpid();
    report.port = s.port;
    report.uptimeSeconds = seconds_since(s, s.startedAt);
    report.clients = open_clients(s);
    report.subscribers = s.routing.subscribers.size();
    report.queuedBytes = s.pool.octets;
    report.subscriberBytes = engine_octets(s.routing);
    report.unfinishedBytes = s.incoming;
    report.memoryBytes = resident_bytes();
    report.unindexed = s.routing.index.remainder;
    report.notices = s.routing.members.notices;
    report.logSuppressed = log_suppressed();
    report.logLost = log_lost();
    report.server = s.counters;
    report.engine = s.routing.counters;
    return report;
}

static client_report report_client(const server &s, const client &c)
{
    client_report report;
    report.id = c.talk.id;
    report.address = c.address;
    report.selfId = c.talk.selfId;
    report.formFactor = c.talk.formFactor;
    const auto at = s.routing.connections.find(c.talk.id);
    report.subscribers = at == s.routing.connections.end() ? 0 : at->second.subscribers.size();
    report.queuedBytes = c.queue.octets;
    report.queuedItems = c.queue.waiting.size() + c.queue.writing.size();
    report.eventsIn = c.talk.events;
    report.eventsOut = c.eventsOut;
    report.bytesIn = c.bytesIn;
    report.bytesOut = c.bytesOut;
    report.dropped = c.queue.dropped;
    report.connectedSeconds = seconds_since(s, c.acceptedAt);
    return report;
}

static std::vector<client_report> report_clients(const void *context)
{
    const server &s = server_of(context);
    std::vector<client_report> reports;
    for (const auto &[id, c] : s.clients)
        if (!c->closing)
            reports.push_back(report_client(s, *c));
    std::ranges::sort(reports, {}, &client_report::id);
    return reports;
}

static bool has_client(const void *context, connection_id id)
{
    const server &s = server_of(context);
    const auto at = s.clients.find(id);
    return at != s.clients.end() && !at->second->closing;
}

/* ---- Followers ---- */

static void on_routed(void *context, connection_id from, const event &what,
                      std::span<const uint64_t> receivers, size_t dropped)
{
    server &s = *static_cast<server *>(context);
    admin_tell_monitors(s.admin, admin_event_line(s.routing, from, what, receivers, dropped));
}

static void on_message(void *context, connection_id from, const message &what)
{
    server &s = *static_cast<server *>(context);
    admin_tell_tracers(s.admin, from, admin_trace_in(from, s.routing.now(), what));
}

void administration_trace_out(const client &c, const outgoing &item, bool taken)
{
    server &s = *c.owner;
    admin_tell_tracers(s.admin, c.talk.id, admin_trace_out(c.talk.id, s.routing.now(), item, taken));
}

void administration_trace_end(const client &c)
{
    server &s = *c.owner;
    admin_end_traces(s.admin, c.talk.id, admin_trace_end(c.talk.id, s.routing.now()));
}

/* Nothing is looked at while nobody follows. */
static void on_followers_changed(server &s)
{
    s.routing.watch = admin_has_monitors(s.admin) ? observer{&s, on_routed} : observer{};
    for (const auto &[id, c] : s.clients) {
        c->traced = admin_traces(s.admin, id);
        c->talk.tap = c->traced ? message_tap{&s, on_message} : message_tap{};
    }
}

/* ---- Opening ---- */

/* Somebody else may have been there first: a directory, link or file of the name that is not ours alone. */
static bool make_private_directory(const std::string &path, std::string &why)
{
    struct stat found {
    };
    if ((mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) || lstat(path.c_str(), &found) != 0) {
        why = path + ": " + std::strerror(errno);
        return false;
    }
    if (S_ISDIR(found.st_mode) && found.st_uid == geteuid() && (found.st_mode & 0077) == 0)
        return true;
    why = path + " is no directory of this user alone";
    return false;
}

/* In the first of the usual places that has room for it. Without one the clients are served all the same. */
static void open_somewhere(server &s)
{
    if (geteuid() == 0)
        mkdir(systemDirectory, 0755);
    const std::string ours = private_directory();
    std::string why;
    for (const std::string &path : default_admin_paths(s.port))
        if ((!path.starts_with(ours + "/") || make_private_directory(ours, why)) &&
            admin_socket_open(s.admin, path, why))
            return;
    spdlog::warn("no administration socket: {}", why);
}

bool administration_start(server &s)
{
    s.admin.loop = &s.loop;
    s.admin.source = {&s, report_daemon, report_clients, has_client, &s.routing};
    s.admin.changed = [&s] { on_followers_changed(s); };
    s.admin.requests = &s.counters.adminRequests;
    const std::string &wanted = s.config.adminSocket;
    if (wanted.empty())
        return true;
    std::string why;
    if (wanted == "auto") {
        open_somewhere(s);
    } else if (!admin_socket_open(s.admin, wanted, why)) {
        spdlog::error("cannot open the administration socket {}: {}", wanted, why);
        return false;
    }
    if (!s.admin.path.empty())
        spdlog::debug("administration at {}", s.admin.path);
    return true;
}

void administration_stop(server &s)
{
    admin_socket_close(s.admin);
}

} // namespace zebd
