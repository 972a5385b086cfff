#include "process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace process
{

using moment = std::chrono::steady_clock::time_point;

static moment deadline()
{
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(patience);
}

static int remaining(moment end)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

static void make_pipe(int &readEnd, int &writeEnd)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0)
        abort();
    readEnd = ends[0];
    writeEnd = ends[1];
}

void become(const arguments &command, const environment &env)
{
    for (const auto &[name, value] : env) {
        if (value.empty())
            unsetenv(name.c_str());
        else
            setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char *> argv;
    for (const std::string &argument : command)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

/* The child's side of start(). */
[[noreturn]] static void become_with(const arguments &command, const environment &env,
                                     const int (&descriptors)[4])
{
    for (int i = 0; i < 4; i++)
        if (descriptors[i] >= 0)
            dup2(descriptors[i], i);
    become(command, env);
}

static void close_descriptor(int &fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

void start(running &child, const arguments &command, const environment &env, bool withReady)
{
    int theirs[4] = {-1, -1, -1, -1};
    make_pipe(theirs[0], child.in);
    make_pipe(child.out, theirs[1]);
    make_pipe(child.err, theirs[2]);
    if (withReady)
        make_pipe(child.ready, theirs[3]);
    for (int &fd :
         theirs) /* above the numbers that the child uses, so that no dup2 overwrites one too early */
        if (fd >= 0) {
            const int high = fcntl(fd, F_DUPFD_CLOEXEC, 10);
            close(fd);
            fd = high;
        }
    child.pid = fork();
    if (child.pid == 0)
        become_with(command, env, theirs);
    for (int &fd : theirs)
        close_descriptor(fd);
}

running::~running()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close_descriptor(in);
    close_descriptor(out);
    close_descriptor(err);
    close_descriptor(ready);
}

/* Moves what has arrived on FD into TEXT; closes FD at its end. */
static void drain(int &fd, std::string &text)
{
    char buffer[65536];
    const ssize_t count = read(fd, buffer, sizeof(buffer));
    if (count > 0)
        text.append(buffer, static_cast<size_t>(count));
    else if (count == 0 || errno != EINTR)
        close_descriptor(fd);
}

/* One wait for output of either kind. False at the end of the time or of both outputs. */
static bool collect(running &child, moment end)
{
    pollfd watched[] = {{child.out, POLLIN, 0}, {child.err, POLLIN, 0}};
    if ((child.out < 0 && child.err < 0) || poll(watched, 2, remaining(end)) <= 0)
        return false;
    if (watched[0].revents != 0)
        drain(child.out, child.outText);
    if (watched[1].revents != 0)
        drain(child.err, child.errText);
    return true;
}

static bool wait_for(running &child, const std::string &collected, const std::string &text)
{
    const moment end = deadline();
    while (collected.find(text) == std::string::npos)
        if (!collect(child, end))
            return collected.find(text) != std::string::npos;
    return true;
}

bool wait_for_out(running &child, const std::string &text)
{
    return wait_for(child, child.outText, text);
}

bool wait_for_err(running &child, const std::string &text)
{
    return wait_for(child, child.errText, text);
}

bool wait_for_more(running &child)
{
    return collect(child, deadline());
}

void poll_output(running &child)
{
    while (collect(child, std::chrono::steady_clock::now())) {
    }
}

void send_signal(const running &child, int number)
{
    if (child.pid > 0)
        kill(child.pid, number);
}

static int wait_for_end(running &child, moment end)
{
    int status = 0;
    pid_t gone = 0;
    while ((gone = waitpid(child.pid, &status, WNOHANG)) == 0 && remaining(end) > 0)
        usleep(1000);
    if (gone != child.pid)
        return -1;
    child.pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int finish(running &child)
{
    const moment end = deadline();
    close_descriptor(child.in);
    while (collect(child, end)) {
    }
    return wait_for_end(child, end);
}

/* Input goes to the child in pieces small enough for a pipe, while its output is read. */
static void feed(running &child, const std::string &input, moment end)
{
    signal(SIGPIPE, SIG_IGN);
    fcntl(child.in, F_SETFL, O_NONBLOCK);
    for (size_t at = 0; at < input.size();) {
        pollfd watched[] = {{child.in, POLLOUT, 0}, {child.out, POLLIN, 0}, {child.err, POLLIN, 0}};
        if (poll(watched, 3, remaining(end)) <= 0)
            return;
        if (watched[1].revents != 0)
            drain(child.out, child.outText);
        if (watched[2].revents != 0)
            drain(child.err, child.errText);
        if (watched[0].revents == 0)
            continue;
        const ssize_t count = write(child.in, input.data() + at, input.size() - at);
        if (count < 0)
            return;
        at += static_cast<size_t>(count);
    }
}

outcome run(const arguments &command, const std::string &input, const environment &env)
{
    running child;
    start(child, command, env);
    feed(child, input, deadline());
    outcome result;
    result.code = finish(child);
    result.out = child.outText;
    result.err = child.errText;
    return result;
}

static std::string read_line(int fd, moment end)
{
    std::string line;
    pollfd watched{fd, POLLIN, 0};
    char octet = 0;
    while (poll(&watched, 1, remaining(end)) > 0 && read(fd, &octet, 1) == 1 && octet != '\n')
        line.push_back(octet);
    return line;
}

uint16_t ready_port(const running &daemon)
{
    const std::string line = read_line(daemon.ready, deadline());
    const std::string mark = "ready port=";
    if (line.compare(0, mark.size(), mark) != 0)
        return 0;
    return static_cast<uint16_t>(std::stoi(line.substr(mark.size())));
}

void start_zebd(zebd &daemon, const arguments &options, const environment &env, uint16_t port)
{
    arguments command = {ZEBD_PATH, "--port", std::to_string(port), "--ready-fd", "3"};
    const std::pair<std::string, std::string> defaults[] = {{"--admin", ""}, {"--log-level", "debug"}};
    for (const auto &[option, value] : defaults)
        if (std::find(options.begin(), options.end(), option) == options.end())
            command.insert(command.end(), {option, value});
    command.insert(command.end(), options.begin(), options.end());
    start(daemon, command, env, true);
    daemon.port = ready_port(daemon);
}

} // namespace process
