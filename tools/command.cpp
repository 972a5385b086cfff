#include "command.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <set>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace tool
{

/* ---- Those that run ---- */

static std::mutex runningLock;
static std::set<pid_t> running; /* guarded by runningLock */

void stop_commands()
{
    const std::lock_guard<std::mutex> guard(runningLock);
    for (const pid_t pid : running)
        kill(pid, SIGTERM);
}

/* Waits for the end, but keeps the number until it is out of the set: it could be another process's then. */
static int wait_for(pid_t pid)
{
    siginfo_t ignored{};
    while (waitid(P_PID, static_cast<id_t>(pid), &ignored, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    const std::lock_guard<std::mutex> guard(runningLock);
    running.erase(pid);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/* ---- Pipes ---- */

struct pipe_ends {
    int reading = -1, writing = -1;

    bool open()
    {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0)
            return false;
        reading = ends[0];
        writing = ends[1];
        return true;
    }
    ~pipe_ends()
    {
        close_end(reading);
        close_end(writing);
    }
    static void close_end(int &fd)
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
};

struct conversation {
    pipe_ends in, out, err;
    pid_t pid = -1;
};

/* Variables of our environment and one more, as exec takes them. */
static std::vector<char *> environment_with(std::string &more)
{
    std::vector<char *> result;
    for (char **at = environ; *at != nullptr; at++)
        result.push_back(*at);
    result.push_back(more.data());
    result.push_back(nullptr);
    return result;
}

/* The command gets signals as a program usually finds them: ours are blocked on the library's threads. */
static bool spawn(conversation &c, const std::string &command, std::string variable, bool ownErrors)
{
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, c.in.reading, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, c.out.writing, STDOUT_FILENO);
    if (ownErrors)
        posix_spawn_file_actions_adddup2(&actions, c.err.writing, STDERR_FILENO);
    sigset_t none, usual;
    sigemptyset(&none);
    sigemptyset(&usual);
    sigaddset(&usual, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &usual);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::array<std::string, 3> texts = {"sh", "-c", command};
    char *argv[] = {texts[0].data(), texts[1].data(), texts[2].data(), nullptr};
    const std::vector<char *> variables = environment_with(variable);
    const std::lock_guard<std::mutex> guard(runningLock);
    const bool good = posix_spawn(&c.pid, "/bin/sh", &actions, &attributes, argv, variables.data()) == 0;
    if (good)
        running.insert(c.pid);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return good;
}

static void write_some(int &fd, std::string_view &input)
{
    const ssize_t count = write(fd, input.data(), input.size());
    if (count > 0)
        input.remove_prefix(static_cast<size_t>(count));
    else if (errno != EINTR && errno != EAGAIN)
        input = {}; /* the command does not want to read it */
    if (input.empty())
        pipe_ends::close_end(fd);
}

static void read_more(int &fd, std::string &into)
{
    std::vector<char> buffer(16384); /* stacks are small where this runs */
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count > 0)
        into.append(buffer.data(), static_cast<size_t>(count));
    else if (count == 0 || errno != EINTR)
        pipe_ends::close_end(fd);
}

static void hand_on_lines(std::string &pending, bool ended, const line_taker &onLine)
{
    size_t feed = 0;
    while ((feed = pending.find('\n')) != std::string::npos) {
        onLine(std::string_view(pending).substr(0, feed));
        pending.erase(0, feed + 1);
    }
    if (ended && !pending.empty())
        onLine(pending);
}

static void converse(conversation &c, std::string_view input, std::string &output, const line_taker &onLine)
{
    std::string errors;
    fcntl(c.in.writing, F_SETFL, O_NONBLOCK);
    if (input.empty())
        pipe_ends::close_end(c.in.writing);
    while (c.out.reading >= 0 || c.err.reading >= 0) {
        pollfd watched[] = {
            {c.in.writing, POLLOUT, 0}, {c.out.reading, POLLIN, 0}, {c.err.reading, POLLIN, 0}};
        if (poll(watched, 3, -1) < 0)
            continue;
        if (watched[0].revents != 0)
            write_some(c.in.writing, input);
        if (watched[1].revents != 0)
            read_more(c.out.reading, output);
        if (watched[2].revents != 0) {
            read_more(c.err.reading, errors);
            hand_on_lines(errors, c.err.reading < 0, onLine);
        }
    }
}

command_result run_command(const std::string &command, const std::string &name, const std::string &value,
                           std::string_view input, const line_taker &onLine)
{
    command_result result;
    conversation c;
    const bool ownErrors = onLine != nullptr;
    if (!c.in.open() || !c.out.open() || (ownErrors && !c.err.open()) ||
        !spawn(c, command, name + "=" + value, ownErrors))
        return result;
    pipe_ends::close_end(c.in.reading);
    pipe_ends::close_end(c.out.writing);
    pipe_ends::close_end(c.err.writing);
    converse(c, input, result.output, onLine);
    result.status = wait_for(c.pid);
    return result;
}

} // namespace tool
