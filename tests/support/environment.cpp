#include "environment.h"

#include "patience.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace zebtest
{

void set_variable(const char *name, const std::string &value)
{
    setenv(name, value.c_str(), 1);
}

void unset_variable(const char *name)
{
    unsetenv(name);
}

void clean_environment()
{
    unset_variable("TAMBEK_CONFIG_HOME");
    unset_variable("TAMBEK_HOME");
    unset_variable("TAMBEK_ZEB_PROXY_PORT");
    unset_variable("TAMBEK_THREAD_STACKSIZE");
    if (threadSanitizer || addressSanitizer)
        set_variable("TAMBEK_THREAD_STACKSIZE", "1048576");
}

void configure(const std::string &home, uint16_t port)
{
    unset_variable("TAMBEK_CONFIG_HOME");
    set_variable("TAMBEK_HOME", home);
    set_variable("TAMBEK_ZEB_PROXY_PORT", std::to_string(port));
}

temporary_home::temporary_home()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "zebhomeXXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("no temporary directory");
    directory = pattern;
}

temporary_home::~temporary_home()
{
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

std::string temporary_home::formfactor_path() const
{
    const std::filesystem::path folder = std::filesystem::path(directory) / "ezeb" / "conf";
    std::filesystem::create_directories(folder);
    return (folder / ".formfactor").string();
}

void temporary_home::write_formfactor(std::string_view bytes) const
{
    std::ofstream(formfactor_path(), std::ios::binary) << bytes;
}

} // namespace zebtest
