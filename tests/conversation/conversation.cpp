#include "conversation.h"

#include <filesystem>
#include <fstream>

namespace zebtest
{

int threads_named(std::string_view name)
{
    int count = 0;
    std::error_code ignored;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        if (name.empty() || comm == name)
            count++;
    }
    return count;
}

bool threads_become(std::string_view name, int count)
{
    return eventually([&] { return threads_named(name) == count; });
}

int open_descriptors()
{
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count += entry.path().empty() ? 0 : 1;
    return count;
}

} // namespace zebtest
