#include "output.h"

#include "text.h"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool
{

static constexpr std::string_view wipe = "\r\033[K";

static volatile std::sig_atomic_t progressShown = 0;

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
    clear_progress();
    if (write_all(STDOUT_FILENO, text))
        return;
    if (errno != EPIPE)
        say(std::string("standard output: ") + std::strerror(errno));
    _exit(exit_partly);
}

void say(std::string_view text)
{
    clear_progress();
    write_all(STDERR_FILENO, "zeb: " + std::string(text) + "\n");
}

exit_code fail(exit_code code, std::string_view text)
{
    say(text);
    return code;
}

bool output_is_gone()
{
    pollfd watched{STDOUT_FILENO, 0, 0};
    return poll(&watched, 1, 0) > 0 && (watched.revents & POLLERR) != 0;
}

/* ---- Progress ---- */

static size_t terminal_width()
{
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void show_progress(std::string_view text)
{
    static const bool wanted = isatty(STDERR_FILENO) != 0;
    if (!wanted)
        return;
    const size_t room = terminal_width() - 1; /* a cursor behind the last column would begin a new line */
    progressShown = 1;
    write_all(STDERR_FILENO, std::string(wipe) + std::string(first_characters(text, room)));
}

void clear_progress()
{
    if (progressShown == 0)
        return;
    write_all(STDERR_FILENO, wipe);
    progressShown = 0;
}

bool progress_is_due()
{
    using clock = std::chrono::steady_clock;
    static clock::time_point last;
    const clock::time_point now = clock::now();
    if (now - last < std::chrono::milliseconds(100))
        return false;
    last = now;
    return true;
}

/* ---- Ending anywhere ---- */

/* Only what a signal handler may do: writes, and no memory but the stack. */
[[noreturn]] static void quit_with(exit_code code, std::initializer_list<std::string_view> pieces)
{
    if (progressShown != 0)
        write_all(STDERR_FILENO, wipe);
    write_all(STDERR_FILENO, "zeb: ");
    for (const std::string_view piece : pieces)
        write_all(STDERR_FILENO, piece);
    write_all(STDERR_FILENO, "\n");
    _exit(code);
}

void quit(exit_code code, std::string_view text)
{
    quit_with(code, {text});
}

void quit_after(uint64_t number, std::string_view things)
{
    char digits[24];
    const char *end = std::to_chars(digits, digits + sizeof(digits), number).ptr;
    quit_with(exit_partly,
              {"stopped after ", std::string_view(digits, static_cast<size_t>(end - digits)), " ", things});
}

} // namespace tool
