/* zeb: one verb a call. Here the command line is read; the verbs do the rest. Exit codes: 0 done, 1 usage, 2
 * no daemon, 3 refused, 4 time-out, 5 partly done. */
#include "verbs.h"

#include <CLI/CLI.hpp>

using namespace tool;

static void declare_common(CLI::App &app, common_options &common)
{
    app.set_version_flag("--version", std::string("zeb ") + ZEB_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--port", common.port, "Port of the daemon")->check(CLI::Range(1, 65535));
    app.add_option("--timeout", common.timeout, "Seconds for the whole run; 0 is no limit")
        ->check(CLI::Range(0.0, 1e8));
    app.add_flag("--json", common.json, "One JSON object a line");
    app.add_flag("-v,--verbose", common.verbose, "Say on standard error what happens");
    app.footer("Exit codes: 0 done, 1 usage, 2 no daemon, 3 refused, 4 time-out, 5 partly done.");
}

static CLI::App *declare_pub(CLI::App &app, pub_options &options)
{
    CLI::App *verb =
        app.add_subcommand("pub", "Publish a notification; its body is standard input if not given");
    verb->add_option("type", options.type, "Type of the notification")->required()->type_name("TYPE");
    auto *body = verb->add_option("--body", options.body, "Body")->type_name("TEXT");
    auto *file = verb->add_option("--file", options.file, "File that holds the body")->type_name("FILE");
    auto *lines =
        verb->add_flag("--lines", options.lines, "One notification for each line of standard input");
    body->excludes(file)->excludes(lines);
    file->excludes(lines);
    verb->add_option("-p,--property", options.properties, "A property; may be given several times")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
    verb->add_option("--component", options.component, "Component that publishes")->type_name("NAME");
    verb->add_flag("--local", options.local, "Keep it on this host");
    return verb;
}

static CLI::App *declare_sub(CLI::App &app, sub_options &options)
{
    CLI::App *verb = app.add_subcommand("sub", "Print what arrives; everything, if no subscription is given");
    verb->add_option("text", options.text, "Subscription")->type_name("TEXT");
    verb->add_option("--count", options.count, "End after that many")->check(CLI::PositiveNumber);
    verb->add_option("--for", options.seconds, "End after that many seconds")->check(CLI::PositiveNumber);
    verb->add_flag("--body-only", options.bodyOnly, "Print bodies, each with a line feed behind it");
    verb->add_option("--component", options.component, "Component that subscribes")->type_name("NAME");
    return verb;
}

static int run(int argc, char **argv)
{
    common_options common;
    pub_options pubOptions;
    sub_options subOptions;
    CLI::App app("Notifications on the command line", "zeb");
    declare_common(app, common);
    const CLI::App *pubVerb = declare_pub(app, pubOptions);
    const CLI::App *subVerb = declare_sub(app, subOptions);
    app.add_subcommand("status", "Say whether the daemon can be reached, and which one it is");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &problem) {
        return app.exit(problem) == 0 ? exit_done : exit_usage;
    }
    if (pubVerb->parsed())
        return pub(common, pubOptions);
    return subVerb->parsed() ? sub(common, subOptions) : status(common);
}

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (...) { /* memory ran out */
        return exit_partly;
    }
}
