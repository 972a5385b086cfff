/* zeb doctor: looks at everything that programs need for notifications, and says how to mend what is wrong.
 */
#include "admin.h"
#include "defaults.h"
#include "json.h"
#include "member.h"
#include "text.h"
#include "verbs.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool
{

enum class verdict { ok, note, wrong };

struct finding {
    std::string check;
    verdict result = verdict::ok;
    std::string found, mend;
};

struct examination {
    const common_options &common;
    std::vector<finding> findings;
    uint16_t port = 0;
    bool daemonMissing = false;

    void ok(const char *check, const std::string &found)
    {
        findings.push_back({check, verdict::ok, found, ""});
    }
    void note(const char *check, const std::string &found, const std::string &mend)
    {
        findings.push_back({check, verdict::note, found, mend});
    }
    void wrong(const char *check, const std::string &found, const std::string &mend)
    {
        findings.push_back({check, verdict::wrong, found, mend});
    }
};

/* ---- The environment ---- */

static constexpr char portVariable[] = "TAMBEK_ZEB_PROXY_PORT";

static bool is_number(const char *text, long least, long most)
{
    long value = 0;
    const auto result = std::from_chars(text, text + std::strlen(text), value);
    return result.ec == std::errc() && *result.ptr == '\0' && value >= least && value <= most;
}

static void examine_port_variable(examination &e)
{
    const std::string name = portVariable;
    const char *text = std::getenv(portVariable);
    if (text == nullptr)
        e.note("port", name + " is not set; zeb and zebd use " + std::to_string(zebd::defaultPort),
               "programs that name no port themselves need it: export " + name + "=" +
                   std::to_string(zebd::defaultPort));
    else if (!is_number(text, 1, 65535))
        e.wrong("port", name + " is '" + escaped(text) + "'",
                "export " + name + "=PORT with the daemon's port, 1 to 65535");
    else
        e.ok("port", name + " is " + text);
}

static void examine_home(examination &e)
{
    const std::string home = setting("TAMBEK_CONFIG_HOME", setting("TAMBEK_HOME", "").c_str());
    struct stat there {
    };
    if (home.empty())
        e.note("home", "neither TAMBEK_CONFIG_HOME nor TAMBEK_HOME is set",
               "programs that name no home themselves need one: export TAMBEK_HOME=DIRECTORY");
    else if (stat(home.c_str(), &there) != 0 || !S_ISDIR(there.st_mode))
        e.wrong("home", "'" + escaped(home) + "' is no directory",
                "make it, or set TAMBEK_HOME to one that exists");
    else
        e.ok("home", escaped(home));
}

static void examine_form_factor(examination &e)
{
    const std::string home = setting("TAMBEK_CONFIG_HOME", setting("TAMBEK_HOME", "").c_str());
    const std::string file = home + "/ezeb/conf/.formfactor";
    if (home.empty() || access(file.c_str(), F_OK) != 0)
        e.ok("form factor", "no file; programs tell the daemon 'abc'");
    else if (access(file.c_str(), R_OK) != 0)
        e.wrong("form factor", escaped(file) + " cannot be read", "give programs the right to read it");
    else
        e.ok("form factor", escaped(file));
}

static void examine_stack(examination &e)
{
    static constexpr char variable[] = "TAMBEK_THREAD_STACKSIZE";
    const char *text = std::getenv(variable);
    if (text == nullptr)
        e.ok("stack", "library threads and call-backs have 32768 octets");
    else if (is_number(text, 16384, 1L << 30))
        e.ok("stack", std::string(variable) + " is " + text);
    else
        e.note("stack", std::string(variable) + " is '" + escaped(text) + "', which is ignored",
               "set it to at least 16384, or unset it");
}

static void examine_descriptors(examination &e)
{
    static constexpr rlim_t enough = 64;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::string found =
        limit.rlim_cur == RLIM_INFINITY ? "no limit" : std::to_string(limit.rlim_cur) + " open files";
    if (limit.rlim_cur < enough)
        e.note("descriptors", found, "ulimit -n " + std::to_string(enough) + " or more");
    else
        e.ok("descriptors", found);
}

/* ---- The network ---- */

static void examine_localhost(examination &e)
{
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo("localhost", nullptr, &wanted, &found) != 0) {
        e.wrong("localhost", "the name cannot be resolved", "add a line '127.0.0.1 localhost' to /etc/hosts");
        return;
    }
    bool v4 = false, v6 = false;
    for (const addrinfo *a = found; a != nullptr; a = a->ai_next) {
        v4 |= a->ai_family == AF_INET;
        v6 |= a->ai_family == AF_INET6;
    }
    freeaddrinfo(found);
    e.ok("localhost",
         std::string("resolves to ") + (v4 ? "IPv4" : "") + (v4 && v6 ? " and " : "") + (v6 ? "IPv6" : ""));
}

static void examine_loopback(examination &e)
{
    const bool v4 = listens_v4(e.port), v6 = listens_v6(e.port);
    const std::string where = "port " + std::to_string(e.port);
    if (v4 && v6)
        e.ok("listening", "on 127.0.0.1 and ::1, " + where);
    else if (v4 || v6)
        e.note("listening", std::string("only on ") + (v4 ? "127.0.0.1, " : "::1, ") + where,
               "programs find the daemon all the same; IPv6 or IPv4 is switched off on the loopback");
    else
        e.wrong("listening", "nothing on " + where,
                "start zebd, or set " + std::string(portVariable) + " to the port of the one that runs");
    e.daemonMissing = !v4 && !v6;
}

static void examine_daemon(examination &e)
{
    std::string instance;
    if (e.daemonMissing || join(e.port, instance) != exit_done) {
        e.wrong("daemon", "does not answer",
                "something else may use the port: ss -ltnp 'sport = :" + std::to_string(e.port) + "'");
        e.daemonMissing = true;
        return;
    }
    e.ok("daemon", "answers, instance " + escaped(instance));
    zeb_shutdown_nowait();
}

/* ---- Administration ---- */

static void examine_mode(examination &e, const std::string &path, mode_t found)
{
    static constexpr mode_t ownerOnly = 0600;
    char mode[8] = "";
    std::snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(found & 07777));
    if ((found & 0777) != ownerOnly)
        e.wrong("administration", path + " has mode " + mode, "chmod 600 " + path);
    else
        e.ok("administration", path + ", mode " + mode);
}

static void examine_administration(examination &e)
{
    std::string tried;
    for (const std::string &path : admin_paths(e.common, e.port)) {
        struct stat there {
        };
        tried += (tried.empty() ? "" : ", ") + path;
        if (stat(path.c_str(), &there) != 0)
            continue;
        admin_connection admin;
        if (admin_try(e.common, path, admin))
            examine_mode(e, path, there.st_mode);
        else if (admin.usurped)
            e.wrong("administration", path + " " + admin.why, "remove it and start zebd again");
        else
            e.note("administration", path + ": " + admin.why, "use it as the user of the daemon, or as root");
        return;
    }
    e.note("administration", "no socket at " + tried,
           "name the daemon's with --admin; without it status and monitor know less");
}

/* ---- The library ---- */

static void examine_library(examination &e)
{
    Dl_info where{};
    const bool known = dladdr(reinterpret_cast<const void *>(&zeb_init), &where) != 0;
    e.ok("library", std::string("zeb ") + ZEB_VERSION + ", " + escaped(known ? where.dli_fname : "in here"));
}

/* ---- The report ---- */

static const char *word(verdict result)
{
    switch (result) {
    case verdict::ok:
        return "ok";
    case verdict::note:
        return "note";
    case verdict::wrong:
        break;
    }
    return "wrong";
}

static std::string readable(const finding &f)
{
    std::string line = word(f.result);
    line.resize(6, ' ');
    line += f.check + ": " + f.found + "\n";
    return f.mend.empty() ? line : line + "      to mend: " + f.mend + "\n";
}

static std::string as_json(const finding &f)
{
    json line;
    line["check"] = f.check;
    line["result"] = word(f.result);
    line["found"] = f.found;
    if (!f.mend.empty())
        line["mend"] = f.mend;
    return line_of(line);
}

exit_code doctor(const common_options &common)
{
    examination e{common, {}};
    examine_port_variable(e);
    if (e.findings[0].result == verdict::wrong && common.port == 0)
        e.port = zebd::defaultPort;
    else if (!find_port(common, e.port))
        return exit_usage;
    examine_home(e);
    examine_form_factor(e);
    examine_stack(e);
    examine_descriptors(e);
    examine_library(e);
    examine_localhost(e);
    examine_loopback(e);
    examine_daemon(e);
    if (!e.daemonMissing)
        examine_administration(e);
    bool wrong = false;
    for (const finding &f : e.findings) {
        put(common.json ? as_json(f) : readable(f));
        wrong = wrong || f.result == verdict::wrong;
    }
    if (e.daemonMissing)
        return exit_no_daemon;
    return wrong ? exit_refused : exit_done;
}

} // namespace tool
