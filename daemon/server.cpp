/* Setting up, running and stopping. */
#include "server.h"

#include "log.h"
#include "serving.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <time.h>
#include <unistd.h>

namespace zebd
{

static int64_t now_milliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/* ---- Telling the service manager ---- */

static bool tell_manager(const server &s, const std::string &lines)
{
    if (notify(s.manager, lines))
        return true;
    const int error = errno;
    log_limited(log_kind::manager, spdlog::level::warn, "the service manager could not be told: {}",
                std::strerror(error));
    errno = error;
    return false;
}

static std::string status_line(const server &s)
{
    return "STATUS=" + std::to_string(s.clients.size()) + " clients, " +
           std::to_string(s.routing.subscribers.size()) + " subscribers on port " + std::to_string(s.port) +
           "\n";
}

/* It waits for this one, so it is told again when it had no room. */
static void tell_ready(server &s)
{
    s.owesReady = !tell_manager(s, "READY=1\n" + status_line(s)) && (errno == EAGAIN || errno == ENOBUFS);
}

static void tell_reloading(const server &s)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t microseconds = static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
    tell_manager(s, "RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds) + "\n");
}

static void on_life_due(uv_timer_t *timer)
{
    server &s = *static_cast<server *>(timer->data);
    if (s.owesReady && !s.stopping)
        tell_ready(s);
    if (s.manager.watchdogMicroseconds > 0)
        tell_manager(s, "WATCHDOG=1\n" + status_line(s));
    else if (!s.owesReady)
        uv_timer_stop(timer);
}

/* Signs of life are given twice as often as expected, so that one that is late does no harm. */
static void start_signs_of_life(server &s)
{
    static constexpr uint64_t againMilliseconds = 200;
    const uint64_t period = s.manager.watchdogMicroseconds / 2000;
    if (s.manager.watchdogMicroseconds > 0)
        uv_timer_start(&s.lifeTimer, on_life_due, 0, period > 0 ? period : 1);
    else if (s.owesReady)
        uv_timer_start(&s.lifeTimer, on_life_due, againMilliseconds, againMilliseconds);
}

/* ---- Stopping ---- */

void server_close_handles(server &s)
{
    for (uv_signal_t &handle : s.signals)
        uv_close(reinterpret_cast<uv_handle_t *>(&handle), nullptr);
    for (uv_timer_t *timer : {&s.stopTimer, &s.gatherTimer, &s.watchTimer, &s.resumeTimer, &s.lifeTimer})
        uv_close(reinterpret_cast<uv_handle_t *>(timer), nullptr);
}

static void end_all(server &s)
{
    for (const auto &[id, c] : s.clients) {
        if (!c->closing && c->queue.octets > 0)
            log_limited(log_kind::unwritten, spdlog::level::warn, "{} ended with {} octets unwritten",
                        client_name(*c), c->queue.octets);
        client_end(*c);
    }
}

void server_on_stop_time_over(uv_timer_t *timer)
{
    end_all(*static_cast<server *>(timer->data));
}

static void begin_stop(server &s)
{
    s.stopping = true;
    for (const auto &[id, c] : s.clients)
        s.unfinished += c->closing ? 0 : 1;
    listening_stop(s);
    administration_stop(s);
    uv_timer_stop(&s.watchTimer);
    if (s.clients.empty())
        return server_close_handles(s);
    uv_timer_start(&s.stopTimer, server_on_stop_time_over, static_cast<uint64_t>(s.config.stopSeconds * 1000),
                   0);
    for (const auto &[id, c] : s.clients)
        client_flush(*c);
}

static void on_stop_signal(server &s, int number)
{
    if (s.stopping) {
        spdlog::warn("second signal: stopping at once");
        return end_all(s);
    }
    tell_manager(s, "STOPPING=1\n");
    spdlog::info("stopping on {}: {} clients", number == SIGTERM ? "SIGTERM" : "SIGINT", s.clients.size());
    begin_stop(s);
}

/* ---- Configuration ---- */

static queue_policy policy_named(const std::string &name)
{
    if (name == "drop-oldest")
        return queue_policy::drop_oldest;
    return name == "drop-newest" ? queue_policy::drop_newest : queue_policy::disconnect;
}

static void apply_configuration(server &s, const configuration &config)
{
    s.config = config;
    s.policy = policy_named(config.queuePolicy);
    engine_limits &limits = s.routing.limits;
    limits.subscribers = static_cast<size_t>(config.subscribers);
    limits.streams = static_cast<size_t>(config.streams);
    limits.address = static_cast<size_t>(config.subscriber);
    limits.kept = static_cast<size_t>(config.allSubscribers);
    limits.language.octets = static_cast<size_t>(config.languageOctets);
    limits.language.nesting = static_cast<size_t>(config.languageNesting);
    limits.language.predicates = static_cast<size_t>(config.languagePredicates);
    s.routing.index.limits.clauses = s.routing.members.interests.limits.clauses =
        static_cast<size_t>(config.languageClauses);
    log_set(config.logLevel, static_cast<uint32_t>(config.logLines));
    for (const auto &[id, c] : s.clients)
        client_apply_limits(*c);
}

/* What needs a restart stays as it is in use, so that a later comparison still shows it. */
static size_t take_changes(const configuration &wanted, configuration &config)
{
    size_t changes = 0;
    for (const config_key &key : config_keys()) {
        const std::string text = config_text(wanted, key);
        if (text == config_text(config, key))
            continue;
        changes++;
        if (key.atOnce)
            std::visit([&](auto member) { config.*member = wanted.*member; }, key.member);
        spdlog::info("configuration: {} = {}{}", key.name, text,
                     key.atOnce ? "" : " takes effect after a restart");
    }
    return changes;
}

static void reread_configuration(server &s)
{
    if (!s.options->reread) {
        spdlog::info("SIGHUP: there is no configuration file to read");
        return;
    }
    configuration wanted;
    if (!s.options->reread(wanted)) {
        s.counters.configurationsRefused++;
        spdlog::error("SIGHUP: the configuration is refused, nothing changes");
        return;
    }
    configuration next = s.config;
    const size_t changes = take_changes(wanted, next);
    apply_configuration(s, next);
    clients_review(s);
    s.counters.configurationsRead++;
    spdlog::info("SIGHUP: configuration read, {} keys changed", changes);
}

/* ---- Running ---- */

/* Ready again whether or not the new configuration was taken. */
static void reload(server &s)
{
    tell_reloading(s);
    reread_configuration(s);
    tell_ready(s);
    if (s.owesReady)
        start_signs_of_life(s);
}

static void on_signal(uv_signal_t *handle, int number)
{
    server &s = *static_cast<server *>(handle->data);
    if (number != SIGHUP)
        on_stop_signal(s, number);
    else if (!s.stopping)
        reload(s);
}

static void announce_on_descriptor(const server &s)
{
    const int fd = s.options->readyFd;
    if (fd < 0)
        return;
    const std::string line = "ready port=" + std::to_string(s.port) + "\n";
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        spdlog::warn("descriptor {} did not take the ready line: {}", fd, std::strerror(errno));
    close(fd);
}

static void announce(server &s)
{
    announce_on_descriptor(s);
    tell_ready(s);
    start_signs_of_life(s);
}

static void start_handles(server &s)
{
    static constexpr int numbers[] = {SIGTERM, SIGINT, SIGHUP};
    for (size_t i = 0; i < std::size(numbers); i++) {
        uv_signal_init(&s.loop, &s.signals[i]);
        s.signals[i].data = &s;
        uv_signal_start(&s.signals[i], on_signal, numbers[i]);
    }
    for (uv_timer_t *timer : {&s.stopTimer, &s.gatherTimer, &s.watchTimer, &s.resumeTimer, &s.lifeTimer}) {
        uv_timer_init(&s.loop, timer);
        timer->data = &s;
    }
    std::signal(SIGPIPE, SIG_IGN);
}

bool server_run(const server_options &options)
{
    const auto s = std::make_unique<server>();
    s->options = &options;
    s->routing.out = {s.get(), client_enqueue, client_wake};
    s->routing.now = now_milliseconds;
    s->routing.identity = options.identity;
    apply_configuration(*s, options.config);
    if (uv_loop_init(&s->loop) != 0) {
        spdlog::error("cannot set up the event loop");
        return false;
    }
    s->startedAt = uv_now(&s->loop);
    log_stop_waiting();
    start_handles(*s);
    if (!notifier_open(s->manager))
        spdlog::warn("NOTIFY_SOCKET names no socket: the service manager is told nothing");
    const bool started = listening_start(*s) && administration_start(*s);
    if (started)
        announce(*s);
    else
        begin_stop(*s);
    uv_run(&s->loop, UV_RUN_DEFAULT);
    uv_loop_close(&s->loop);
    if (started)
        spdlog::info("stopped");
    return started;
}

} // namespace zebd
