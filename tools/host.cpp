#include "host.h"

#include "defaults.h"
#include "stop.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zeb.h>

namespace tool
{

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

static int dial(const sockaddr *address, socklen_t length)
{
    const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, address, length) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

static int dial_v4(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return dial(reinterpret_cast<const sockaddr *>(&address), sizeof(address));
}

static int dial_v6(uint16_t port)
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = in6addr_loopback;
    return dial(reinterpret_cast<const sockaddr *>(&address), sizeof(address));
}

int dial(uint16_t port)
{
    const int fd = dial_v4(port);
    return fd >= 0 ? fd : dial_v6(port);
}

static bool hang_up(int fd)
{
    return fd >= 0 && close(fd) == 0;
}

bool listens_v4(uint16_t port)
{
    return hang_up(dial_v4(port));
}

bool listens_v6(uint16_t port)
{
    return hang_up(dial_v6(port));
}

bool something_listens(uint16_t port)
{
    return listens_v4(port) || listens_v6(port);
}

/* In short steps, since a signal or the end of our reader must be noticed meanwhile. */
exit_code receive_more(int fd, double until, std::string &pending)
{
    static constexpr int step = 100;
    pollfd watched{fd, POLLIN, 0};
    for (;;) {
        const double left = until - steady_clock();
        if (left <= 0 || interrupted() || output_is_gone())
            return exit_time_out;
        if (poll(&watched, 1, left * 1000 < step ? static_cast<int>(left * 1000) + 1 : step) > 0)
            break;
    }
    std::string buffer(65536, '\0');
    const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
    if (count <= 0)
        return count < 0 && errno == EINTR ? exit_done : exit_no_daemon;
    pending.append(buffer, 0, static_cast<size_t>(count));
    return exit_done;
}

std::string setting(const char *name, const char *fallback)
{
    const char *value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : fallback;
}

std::string home_directory()
{
    const std::string own = setting("HOME", "/");
    return setting("TAMBEK_CONFIG_HOME", setting("TAMBEK_HOME", own.c_str()).c_str());
}

exit_code join(uint16_t port, std::string &instance)
{
    const std::string where = "port " + std::to_string(port);
    if (!something_listens(port)) {
        say("no daemon on " + where);
        return exit_no_daemon;
    }
    setenv("TAMBEK_CONFIG_HOME", home_directory().c_str(), 1); /* the library is content with nothing less */
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

exit_code join(const common_options &options, uint16_t &port)
{
    std::string instance;
    return find_port(options, port) ? join(port, instance) : exit_usage;
}

exit_code join(const common_options &options)
{
    uint16_t port = 0;
    return join(options, port);
}

} // namespace tool
