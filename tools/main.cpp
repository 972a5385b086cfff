/* zeb: one verb a call. Here the command line is read as the table says; the verbs do the rest. */
#include "manual.h"
#include "stop.h"
#include "table.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <map>

using namespace tool;

/* Binds an option of the parser to where its value goes. */
struct binder {
    CLI::App &app;
    const option &what;

    CLI::Option *operator()(bool *where) const
    {
        return app.add_flag(what.names, *where);
    }
    CLI::Option *operator()(words *where) const
    {
        const bool isArgument = what.names[0] != '-';
        return app.add_option(what.names, *where)->allow_extra_args(isArgument);
    }
    template <typename Value>
    CLI::Option *operator()(Value *where) const
    {
        return app.add_option(what.names, *where);
    }
};

static bool has_number(const option &what)
{
    return std::holds_alternative<int *>(what.where) || std::holds_alternative<int64_t *>(what.where) ||
           std::holds_alternative<double *>(what.where);
}

static void declare(CLI::App &app, const option &what)
{
    CLI::Option *declared = std::visit(binder{app, what}, what.where);
    declared->required(what.required);
    if (has_number(what))
        declared->check(CLI::Range(what.least, what.most));
    if (!what.choices.empty())
        declared->check(CLI::IsMember(what.choices));
}

/* Exclusions name options that are declared by then: all of the verb's and the common ones. */
static void exclude(CLI::App &app, CLI::App &root, const option &what)
{
    for (const std::string &name : what.excludes) {
        CLI::Option *other = app.get_option_no_throw(name);
        app.get_option(long_name(what))->excludes(other != nullptr ? other : root.get_option(name));
    }
}

struct parser {
    CLI::App app{"", "zeb"};
    std::map<std::string, CLI::App *> groups; /* "stream" of "stream send" */
    std::vector<std::pair<CLI::App *, const verb *>> verbs;
};

/* The parser's node of a verb; of "stream send" below one of "stream". */
static CLI::App *place_of(parser &p, const std::string &name)
{
    const size_t blank = name.find(' ');
    if (blank == std::string::npos)
        return p.app.add_subcommand(name);
    const std::string group = name.substr(0, blank);
    CLI::App *&above = p.groups[group];
    if (above == nullptr) {
        above = p.app.add_subcommand(group)->fallthrough();
        above->require_subcommand(1);
        above->set_help_flag();
    }
    return above->add_subcommand(name.substr(blank + 1));
}

static void declare_all(parser &p, const command_table &table)
{
    p.app.set_help_flag();
    p.app.add_flag("-h,--help")->description("Explain");
    p.app.set_version_flag("--version", std::string("zeb ") + ZEB_VERSION);
    p.app.require_subcommand(0, 1);
    p.app.fallthrough();
    for (const option &o : table.common)
        declare(p.app, o);
    for (const verb &v : table.verbs) {
        CLI::App *node = place_of(p, v.name);
        node->fallthrough();
        node->set_help_flag();
        for (const auto *list : {&v.arguments, &v.options})
            for (const option &o : *list)
                declare(*node, o);
        for (const option &o : v.options)
            exclude(*node, p.app, o);
        p.verbs.emplace_back(node, &v);
    }
}

/* Help is asked for by words, not by the parser: it must also be had where arguments are missing. Returns
 * whether it was printed. What stands behind "--" is no option. */
static bool gave_help(const command_table &table, int argc, char **argv)
{
    const std::vector<std::string> given(argv + 1, argv + argc);
    const auto end = std::find(given.begin(), given.end(), "--");
    const auto asks = [](const std::string &word) { return word == "--help" || word == "-h"; };
    if (std::find_if(given.begin(), end, asks) == end)
        return false;
    const verb *meant = nullptr;
    for (auto at = given.begin(); at != end && meant == nullptr; ++at)
        for (const verb &v : table.verbs)
            if (v.name == *at || (at + 1 != end && v.name == *at + " " + *(at + 1)))
                meant = &v;
    put(meant != nullptr ? manual_page(table, *meant) : overview(table));
    return true;
}

static int run(int argc, char **argv)
{
    settings values;
    const command_table table = make_table(values);
    if (gave_help(table, argc, argv))
        return exit_done;
    parser p;
    declare_all(p, table);
    try {
        p.app.parse(argc, argv);
    } catch (const CLI::CallForVersion &version) {
        return p.app.exit(version);
    } catch (const CLI::ParseError &problem) {
        return fail(exit_usage, problem.what());
    }
    for (const auto &[node, verb] : p.verbs) {
        if (!node->parsed())
            continue;
        limit_run(values.common.timeout < 0 ? verb->timeout : values.common.timeout);
        return run_verb(table, values, *verb);
    }
    return fail(exit_usage, "a verb is missing; `zeb help` lists them");
}

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN); /* writes tell of it, and the children of `serve` are not worth a death */
    try {
        return run(argc, argv);
    } catch (const std::exception &) {
        return fail(exit_partly, "out of memory");
    }
}
