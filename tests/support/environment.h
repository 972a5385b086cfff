/* The environment that zeb_init reads, and home directories that vanish with the test. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zebtest
{

void set_variable(const char *name, const std::string &value);
void unset_variable(const char *name);

/* Takes every variable of the library away. Under a sanitizer TAMBEK_THREAD_STACKSIZE stays at a size that
 * its instrumentation fits in. */
void clean_environment();

/* Home and port for zeb_init; TAMBEK_CONFIG_HOME stays unset. */
void configure(const std::string &home, uint16_t port);

/* An empty directory, removed with everything in it at the end. */
class temporary_home
{
  public:
    temporary_home();
    ~temporary_home();
    temporary_home(const temporary_home &) = delete;
    temporary_home &operator=(const temporary_home &) = delete;

    const std::string &path() const
    {
        return directory;
    }

    /* Where the form-factor file belongs; its directory is made. */
    std::string formfactor_path() const;
    void write_formfactor(std::string_view bytes) const;

  private:
    std::string directory;
};

} // namespace zebtest
