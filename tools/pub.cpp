/* zeb pub: publishes one notification, or one for each line of standard input. */
#include "verbs.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>
#include <zeb.h>

namespace tool
{

static constexpr double defaultTimeout = 30;

using property_pairs = std::vector<std::pair<std::string, std::string>>;

static exit_code misuse(const std::string &what)
{
    say(what);
    return exit_usage;
}

/* ---- Checks before anything is sent ---- */

static bool is_one_line(const std::string &text)
{
    return text.find_first_of("\r\n") == std::string::npos;
}

/* The library replaces what it cannot send by a fixed text; better to say so here. */
static bool split_property(const std::string &text, property_pairs &pairs)
{
    const size_t sign = text.find('=');
    if (sign == std::string::npos || sign == 0)
        return false;
    pairs.emplace_back(text.substr(0, sign), text.substr(sign + 1));
    return is_one_line(text) && pairs.back().first.find(':') == std::string::npos;
}

static exit_code check(const pub_options &options, property_pairs &pairs)
{
    if (!is_one_line(options.type) || !is_one_line(options.component))
        return misuse("type and component must be one line");
    for (const std::string &text : options.properties)
        if (!split_property(text, pairs))
            return misuse("'" + text + "' is no property: name=value in one line, no ':' in the name");
    return exit_done;
}

/* ---- Input ---- */

static bool read_some(int fd, std::string &into, bool &ended)
{
    char buffer[65536];
    ssize_t count = 0;
    do {
        count = read(fd, buffer, sizeof(buffer));
    } while (count < 0 && errno == EINTR);
    ended = count == 0;
    if (count > 0)
        into.append(buffer, static_cast<size_t>(count));
    return count >= 0;
}

static bool read_whole(int fd, std::string &body)
{
    for (bool ended = false; !ended;) {
        if (!read_some(fd, body, ended))
            return false;
        if (body.size() > INT32_MAX) {
            errno = EFBIG;
            return false;
        }
    }
    return true;
}

static exit_code read_body(const pub_options &options, std::string &body)
{
    if (options.body) {
        body = *options.body;
        return exit_done;
    }
    const std::string name = options.file.value_or("standard input");
    const int fd = options.file ? open(name.c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO;
    const bool read = fd >= 0 && read_whole(fd, body);
    const int error = errno;
    if (options.file && fd >= 0)
        close(fd);
    return read ? exit_done : misuse(name + ": " + std::strerror(error));
}

/* ---- Publishing ---- */

struct publication {
    const pub_options &options;
    const property_pairs &properties;
    zeb_publisher *publisher;
};

static bool publish(const publication &p, std::string_view body)
{
    zeb_notification *n =
        zeb_notification_create(p.options.type.c_str(), body.data(), static_cast<int32_t>(body.size()));
    if (n == nullptr)
        return false;
    for (const auto &[name, value] : p.properties)
        if (zeb_notification_setProperty(n, name.c_str(), value.c_str()) != 0)
            return false;
    if (p.options.local)
        zeb_notification_setLocalOnly(n);
    zeb_publisher_publish(p.publisher, n);
    return true;
}

/* Publishes the complete lines in PENDING and keeps the rest of it. A carriage return belongs to the line. */
static bool publish_lines(const publication &p, std::string &pending, size_t &published)
{
    size_t begin = 0;
    for (size_t feed = pending.find('\n'); feed != std::string::npos; feed = pending.find('\n', begin)) {
        if (!publish(p, std::string_view(pending).substr(begin, feed - begin)))
            return false;
        published++;
        begin = feed + 1;
    }
    pending.erase(0, begin);
    return pending.size() <= INT32_MAX;
}

static exit_code publish_input(const publication &p)
{
    std::string pending;
    size_t published = 0;
    bool good = true;
    for (bool ended = false; good && !ended;)
        good = read_some(STDIN_FILENO, pending, ended) && publish_lines(p, pending, published);
    if (good && !pending.empty())
        good = publish(p, pending);
    if (good)
        return exit_done;
    say("stopped after " + std::to_string(published) + " lines: " + std::strerror(errno));
    return published > 0 ? exit_partly : exit_usage;
}

static exit_code publish_all(const publication &p, const std::string &body)
{
    if (p.publisher == nullptr) {
        say("no publisher could be made");
        return exit_no_daemon;
    }
    if (p.options.lines)
        return publish_input(p);
    if (publish(p, body))
        return exit_done;
    say("the notification could not be made");
    return exit_no_daemon;
}

/* The shutdown returns when everything has been written to the daemon's connection. */
exit_code pub(const common_options &common, const pub_options &options)
{
    limit_run(common.timeout < 0 ? defaultTimeout : common.timeout);
    property_pairs properties;
    exit_code code = check(options, properties);
    std::string body;
    if (code == exit_done && !options.lines)
        code = read_body(options, body);
    if (code == exit_done)
        code = join(common);
    if (code != exit_done)
        return code;
    zeb_publisher *publisher = zeb_publisher_create(options.component.c_str());
    code = publish_all({options, properties, publisher}, body);
    zeb_publisher_close(publisher);
    zeb_shutdown();
    return code;
}

} // namespace tool
