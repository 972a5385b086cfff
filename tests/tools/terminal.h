/* A program on a terminal of its own, as a person would see it: one stream of what it writes to the screen.
 */
#pragma once

#include "process.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

struct terminal {
    pid_t pid = -1;
    int fd = -1;
    std::string seen;

    terminal() = default;
    terminal(const terminal &) = delete;
    terminal &operator=(const terminal &) = delete;

    ~terminal()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (fd >= 0)
            close(fd);
    }

    void start(const process::arguments &command, const process::environment &env, unsigned short columns)
    {
        winsize size{};
        size.ws_row = 24;
        size.ws_col = columns;
        pid = forkpty(&fd, nullptr, nullptr, &size);
        if (pid == 0)
            process::become(command, env);
    }

    /* Collects what is written until TEXT has been seen. */
    bool wait_for(const std::string &text)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(process::patience);
        while (seen.find(text) == std::string::npos)
            if (std::chrono::steady_clock::now() > end || !more())
                return false;
        return true;
    }

    /* Types TEXT, Ctrl-C being "\x03". */
    void type(const std::string &text)
    {
        if (write(fd, text.data(), text.size()) < 0)
            abort();
    }

    /* Waits for the end. Returns the exit code, -1 for anything else. */
    int finish()
    {
        while (more()) {
        }
        int status = 0;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(process::patience);
        while (waitpid(pid, &status, WNOHANG) == 0)
            if (std::chrono::steady_clock::now() > end)
                return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /* What a person has before their eyes now: carriage returns go back, "\033[K" wipes to the end. */
    std::string screen() const
    {
        std::string lines, line;
        size_t column = 0;
        for (size_t i = 0; i < seen.size(); i++) {
            if (seen.compare(i, 3, "\033[K") == 0) {
                line.resize(column);
                i += 2;
            } else if (seen[i] == '\r') {
                column = 0;
            } else if (seen[i] == '\n') {
                lines += line + "\n";
                line.clear();
                column = 0;
            } else {
                line.resize(std::max(line.size(), column + 1), ' ');
                line[column++] = seen[i];
            }
        }
        return lines + line;
    }

    /* The longest run of columns written without going back. */
    size_t widest() const
    {
        size_t most = 0, column = 0;
        for (size_t i = 0; i < seen.size(); i++) {
            if (seen.compare(i, 3, "\033[K") == 0)
                i += 2;
            else
                column = seen[i] == '\r' || seen[i] == '\n' ? 0 : column + 1;
            most = std::max(most, column);
        }
        return most;
    }

  private:
    /* False at the end of the terminal, which the last process closes by ending, or of the time. */
    bool more()
    {
        pollfd watched{fd, POLLIN, 0};
        char buffer[65536];
        if (poll(&watched, 1, process::patience) <= 0)
            return false;
        const ssize_t count = read(fd, buffer, sizeof(buffer));
        if (count > 0)
            seen.append(buffer, static_cast<size_t>(count));
        return count > 0;
    }
};
