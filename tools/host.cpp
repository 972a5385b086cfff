#include "host.h"

#include "defaults.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <zeb.h>

namespace tool
{

static bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

void put(std::string_view text)
{
    if (write_all(STDOUT_FILENO, text))
        return;
    say(std::string("standard output: ") + std::strerror(errno));
    _exit(exit_partly);
}

void say(std::string_view text)
{
    write_all(STDERR_FILENO, "zeb: " + std::string(text) + "\n");
}

/* ---- The limit of the run ---- */

/* The library's own waits cannot be interrupted, and its service threads block all signals; so the limit is a
 * signal on the main thread that ends the process where it stands. */
static void on_time_over(int)
{
    static constexpr char text[] = "zeb: time is over\n";
    const ssize_t ignored = write(STDERR_FILENO, text, sizeof(text) - 1);
    static_cast<void>(ignored);
    _exit(exit_time_out);
}

void limit_run(double seconds)
{
    if (seconds <= 0)
        return;
    std::signal(SIGALRM, on_time_over);
    double whole = 0;
    const double fraction = std::modf(seconds, &whole);
    itimerval limit{};
    limit.it_value.tv_sec = static_cast<time_t>(whole);
    limit.it_value.tv_usec = static_cast<suseconds_t>(fraction * 1e6);
    if (limit.it_value.tv_sec == 0 && limit.it_value.tv_usec == 0)
        limit.it_value.tv_usec = 1; /* zero would mean no limit */
    setitimer(ITIMER_REAL, &limit, nullptr);
}

/* ---- The way to the daemon ---- */

bool find_port(const common_options &options, uint16_t &port)
{
    port = static_cast<uint16_t>(options.port);
    if (options.port != 0)
        return true;
    const char *text = std::getenv("TAMBEK_ZEB_PROXY_PORT");
    if (text == nullptr) {
        port = zebd::defaultPort;
        return true;
    }
    const auto result = std::from_chars(text, text + std::strlen(text), port);
    if (result.ec == std::errc() && *result.ptr == '\0' && port != 0)
        return true;
    say(std::string("TAMBEK_ZEB_PROXY_PORT: '") + text + "' is no port");
    return false;
}

static bool accepts(const sockaddr *address, socklen_t length)
{
    const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool accepted = connect(fd, address, length) == 0;
    close(fd);
    return accepted;
}

bool something_listens(uint16_t port)
{
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_addr = in6addr_loopback;
    return accepts(reinterpret_cast<const sockaddr *>(&v4), sizeof(v4)) ||
           accepts(reinterpret_cast<const sockaddr *>(&v6), sizeof(v6));
}

/* The value of an environment variable, FALLBACK when it is unset or empty. */
static std::string setting(const char *name, const char *fallback)
{
    const char *value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : fallback;
}

/* The library wants a home directory, which it only tells the daemon about. The user's own will do. */
static void supply_home()
{
    if (setting("TAMBEK_CONFIG_HOME", "").empty() && setting("TAMBEK_HOME", "").empty())
        setenv("TAMBEK_HOME", setting("HOME", "/").c_str(), 1);
}

exit_code join(uint16_t port, std::string &instance)
{
    const std::string where = "port " + std::to_string(port);
    if (!something_listens(port)) {
        say("no daemon on " + where);
        return exit_no_daemon;
    }
    supply_home();
    if (zeb_init_with_port(port) != 0) {
        say("the library could not be started");
        return exit_no_daemon;
    }
    char *name = nullptr;
    zeb_get_instancename(&name);
    if (name == nullptr) {
        say("what listens on " + where + " does not answer like a daemon");
        zeb_shutdown_nowait();
        return exit_no_daemon;
    }
    instance = name;
    std::free(name);
    return exit_done;
}

exit_code join(const common_options &options)
{
    uint16_t port = 0;
    std::string instance;
    return find_port(options, port) ? join(port, instance) : exit_usage;
}

} // namespace tool
