#include "stacks.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace zebtest
{

namespace
{

bool debugger_shows(const std::string &process)
{
    const char *command[] = {"gdb",  "-p", process.c_str(), "-batch", "-ex", "thread apply all backtrace 16",
                             nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    pid_t child = 0;
    int status = -1;
    if (posix_spawnp(&child, command[0], &actions, nullptr, const_cast<char **>(command), environ) == 0)
        waitpid(child, &status, 0);
    posix_spawn_file_actions_destroy(&actions);
    return status == 0;
}

/* Calls VISIT with the folder of each thread. */
template <typename Visit>
void for_each_thread(const std::string &process, Visit visit)
{
    std::error_code gone;
    for (const auto &thread : std::filesystem::directory_iterator("/proc/" + process + "/task", gone))
        visit(thread.path());
}

void kernel_shows(const std::string &process)
{
    for_each_thread(process, [](const std::filesystem::path &thread) {
        fprintf(stderr, "thread %s\n", thread.filename().c_str());
        for (const char *what : {"comm", "wchan", "syscall", "stack"}) {
            std::ifstream in(thread / what);
            for (std::string line; std::getline(in, line);)
                fprintf(stderr, "  %s: %s\n", what, line.c_str());
        }
    });
}

} // namespace

void show_stacks(pid_t process)
{
    fprintf(stderr, "---- process %d ----\n", process);
    if (!debugger_shows(std::to_string(process)))
        kernel_shows(std::to_string(process));
}

void show_stacks_of_all(pid_t process)
{
    show_stacks(process);
    for_each_thread(std::to_string(process), [](const std::filesystem::path &thread) {
        std::ifstream children(thread / "children");
        for (pid_t child = 0; children >> child;)
            show_stacks_of_all(child);
    });
}

} // namespace zebtest
