#include "admin.h"

#include "defaults.h"
#include "stop.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tool
{

admin_connection::~admin_connection()
{
    if (fd >= 0)
        close(fd);
}

std::vector<std::string> admin_paths(const common_options &common, uint16_t port)
{
    return common.admin.empty() ? zebd::default_admin_paths(port) : std::vector{common.admin};
}

static int dial_path(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
        return fd;
    const int error = errno;
    if (fd >= 0)
        close(fd);
    errno = error;
    return -1;
}

/* The system's directory is root's to give, and what is in it is of the user whom it was given to. */
static bool is_trusted(uid_t user, const std::string &path)
{
    struct stat directory {
    };
    if (user == geteuid() || user == 0)
        return true;
    return path.starts_with(zebd::systemDirectory + std::string("/")) &&
           stat(zebd::systemDirectory, &directory) == 0 && directory.st_uid == user;
}

/* The owner of the file, or else the one who listens, when that is somebody who must not. */
static std::optional<uid_t> stranger_at(const admin_connection &admin)
{
    struct stat file {
    };
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (lstat(admin.path.c_str(), &file) != 0 ||
        getsockopt(admin.fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return static_cast<uid_t>(-1);
    for (const uid_t user : {file.st_uid, peer.uid})
        if (!is_trusted(user, admin.path))
            return user;
    return {};
}

bool admin_try(const common_options &common, const std::string &path, admin_connection &admin)
{
    admin.path = path;
    admin.fd = dial_path(path);
    if (admin.fd < 0) {
        admin.why = std::strerror(errno);
        return false;
    }
    const std::optional<uid_t> stranger = common.admin.empty() ? stranger_at(admin) : std::nullopt;
    if (!stranger)
        return true;
    admin.why = "belongs to user " + std::to_string(*stranger) + ", who is neither you nor root";
    admin.usurped = true;
    return false;
}

exit_code admin_open(const common_options &common, admin_connection &admin)
{
    uint16_t port = 0;
    if (!find_port(common, port))
        return exit_usage;
    std::string tried;
    for (const std::string &path : admin_paths(common, port)) {
        if (admin_try(common, path, admin))
            return exit_done;
        tried += (tried.empty() ? "" : ", ") + path + ": " + admin.why;
    }
    return fail(exit_no_daemon, "no administration socket (" + tried + ")");
}

/* ---- Lines ---- */

static bool write_line(const admin_connection &admin, const std::string &line)
{
    return send(admin.fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
}

static exit_code closed(const admin_connection &admin)
{
    return fail(exit_no_daemon, "the daemon has closed " + admin.path);
}

static exit_code read_more(admin_connection &admin, double until)
{
    const exit_code code = receive_more(admin.fd, until, admin.pending);
    return code == exit_no_daemon ? closed(admin) : code;
}

exit_code admin_next(admin_connection &admin, double until, json &line)
{
    size_t feed = admin.pending.find('\n');
    while (feed == std::string::npos) {
        if (const exit_code code = read_more(admin, until); code != exit_done)
            return code;
        feed = admin.pending.find('\n');
    }
    line = json::parse(admin.pending.begin(), admin.pending.begin() + static_cast<ptrdiff_t>(feed), nullptr,
                       false);
    admin.pending.erase(0, feed + 1);
    return line.is_object() ? exit_done : fail(exit_no_daemon, admin.path + " does not answer like a daemon");
}

exit_code admin_ask(admin_connection &admin, const json &question, json &answer)
{
    static constexpr double patience = 10;
    if (!write_line(admin, line_of(question)))
        return closed(admin);
    const exit_code code = admin_next(admin, steady_clock() + patience, answer);
    if (code != exit_done)
        return code == exit_time_out ? fail(code, admin.path + " does not answer") : code;
    if (answer.value("ok", false))
        return exit_done;
    return fail(exit_refused, "refused: " + answer.value("error", "without a reason"));
}

} // namespace tool
