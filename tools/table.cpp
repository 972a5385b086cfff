#include "table.h"

#include "defaults.h"
#include "manual.h"
namespace tool
{

/* ---- Options that several verbs have ---- */

static option component_option(std::string &where)
{
    return {"--component", "NAME", "Component on whose behalf it is done", &where};
}

static option property_option(words &where, const std::string &about)
{
    return {"-p,--property", "NAME=VALUE", about + "; may be given several times", &where};
}

static option file_option(std::optional<std::string> &where, const std::string &what)
{
    return {"--file", "FILE", "File that holds " + what + "; standard input if not given", &where};
}

static option count_option(int64_t &where)
{
    return {"--count", "N", "End after that many", &where, 1, 1e15};
}

static option for_option(double &where)
{
    return {"--for", "SECONDS", "End after that many seconds", &where, 0.001, 1e8};
}

static const std::pair<exit_code, std::string> noDaemon = {exit_no_daemon, "no daemon can be reached"};
static const std::pair<exit_code, std::string> timeOver = {exit_time_out, "--timeout was over"};

static std::vector<option> common_options_of(common_options &common)
{
    return {
        {"--port", "PORT",
         "Port of the daemon; from TAMBEK_ZEB_PROXY_PORT if not given, else " +
             std::to_string(zebd::defaultPort),
         &common.port, 1, 65535},
        {"--timeout", "SECONDS", "Limit for the whole run; 0 is none", &common.timeout, 0, 1e8},
        {"--admin", "PATH",
         "Administration socket of the daemon; the one that belongs to the port if not given", &common.admin},
        {"--json", "", "One JSON object a line", &common.json},
        {"-v,--verbose", "", "Say on standard error what happens", &common.verbose},
    };
}

/* ---- Notifications ---- */

static verb pub_verb(pub_options &o)
{
    verb v{"pub",
           "Publish notifications",
           R"(Publishes one notification of type TYPE. Its body is what --body or --file says, or standard
input whole. With --lines each line of standard input is a notification of its own, as soon as it is complete.

With --json each line of standard input is an object as `zeb sub --json` prints it; read are "type" (TYPE if
absent), "component", "local", "properties" (a list of {"name", "value"}, or an object), and "body" or
"bodyBase64". So `zeb sub --json | zeb pub --json` publishes again what arrives. Properties, --local and --to of
the command line are added to each.

The run ends when the daemon has taken everything.)",
           {{"TYPE", "TYPE", "Type of the notification; not needed with --json", &o.type}},
           {
               {"--body", "TEXT", "Body", &o.body, 0, 0, {}, {"--file", "--lines", "--json"}},
               {"--file", "FILE", "File that holds the body", &o.file, 0, 0, {}, {"--lines", "--json"}},
               {"--lines",
                "",
                "One notification for each line of standard input",
                &o.lines,
                0,
                0,
                {},
                {"--json"}},
               property_option(o.properties, "A property"),
               component_option(o.component),
               {"--local", "", "Keep it on this host", &o.local},
               {"--to", "KEY",
                "Only to the subscriber of this address key (see `zeb members`); may be given several times",
                &o.to},
               {"--repeat", "N", "Publish it that many times", &o.repeat, 1, 1e12, {}, {"--lines", "--json"}},
               {"--every", "MS", "Milliseconds between two notifications", &o.every, 0, 1e9},
           },
           {noDaemon,
            {exit_refused, "no subscriber has an address key of --to"},
            timeOver,
            {exit_partly, "stopped after some of them"}},
           "zeb pub /app/disk --body 'nearly full' -p free=7",
           30};
    return v;
}

static verb sub_verb(sub_options &o)
{
    verb v{
        "sub",
        "Print what arrives",
        R"(Subscribes and prints each notification that arrives: all of them, or those that the subscription
TEXT asks for (see `zeb help check`). A line shows the time of creation, type, component, properties and, after
" | ", the body; octets that cannot be shown are written as \xNN. Of a stream only the first piece is printed.

With --json the members are type, class, id, component, node, process, instance, affectedComponents,
affectedNodes, local, created, delivered (both in seconds since 1970), properties (a list of {"name", "value"},
oldest first) and body; a body that is no UTF-8 is "bodyBase64" instead, and one that --blocks has decoded is
"block" instead.

--format prints TEXT for each notification, with these placeholders replaced:
  {type} {class} {id} {component} {node} {process} {instance} {local}
  {affectedComponents} {affectedNodes}
  {created} {delivered}  the times in seconds since 1970
  {time}                 the time of creation as in 2031-05-06T07:08:09Z
  {properties}           all as name=value with blanks between them
  {property:NAME}        the value of one, empty when there is none
  {body}                 the body, octet by octet
  {text}                 the body made one printable line
  {number}               1 for the first notification printed, then 2 and so on
  \n \t \\ {{            a line feed, a tab, a backslash, an opening brace

Ctrl-C ends it in good order.)",
        {{"TEXT", "TEXT", "Subscription", &o.text}},
        {
            count_option(o.count),
            for_option(o.seconds),
            {"--format",
             "TEXT",
             "Print this, with placeholders",
             &o.format,
             0,
             0,
             {},
             {"--dump", "--body-only", "--json"}},
            {"--dump",
             "",
             "Print every field on a line of its own",
             &o.dump,
             0,
             0,
             {},
             {"--body-only", "--json"}},
            {"--body-only",
             "",
             "Print bodies, each with a line feed behind it",
             &o.bodyOnly,
             0,
             0,
             {},
             {"--json"}},
            {"--blocks", "", "Show bodies that are body blocks decoded", &o.blocks},
            component_option(o.component),
        },
        {noDaemon,
         {exit_refused, "the daemon refused the subscription"},
         {exit_time_out, "none came of --count, or --timeout was over"},
         {exit_partly, "fewer came than --count"}},
        "zeb sub '\"@type~=/app/**\" & \"free<10\"' --for 1"};
    return v;
}

static const char streamAbout[] = "Send and receive streams of octets";

static verb stream_send_verb(stream_options &o)
{
    verb v{
        "stream send",
        "Send standard input as a stream",
        R"(Sends the octets of standard input, or of --file, as a stream of type TYPE, as they come, and says on
standard error how many there were. Subscribers that are there from the beginning get all of them in order. While
it runs a line on the terminal shows how far it is. Nothing slows the sender down: what the daemon does not take
yet is kept in memory. When the daemon goes the run ends, since nobody would get the whole any more.)",
        {{"TYPE", "TYPE", "Type of the stream", &o.type, 0, 0, {}, {}, true}},
        {
            file_option(o.file, "the octets"),
            property_option(o.properties, "A property, which goes with every piece"),
            component_option(o.component),
            {"--piece", "OCTETS", "Octets of a piece at most", &o.piece, 1, 16777216},
        },
        {noDaemon,
         timeOver,
         {exit_partly, "stopped before the end of the input, or the daemon was gone before it had all"}},
        "date | zeb stream send /backup"};
    return v;
}

static verb stream_receive_verb(stream_options &o)
{
    verb v{
        "stream receive",
        "Write the next stream to standard output",
        R"(Waits for a stream and writes it to standard output octet by octet until its end. TEXT is its type
when it begins with a slash and holds no wildcard, else a subscription. Says on standard error that it is
subscribed (with --verbose), which stream it is, and how many octets it had. When the daemon goes in the middle of
the stream the run ends; before its beginning it waits for the daemon.)",
        {{"TEXT", "TEXT", "Type of the stream, or a subscription", &o.type, 0, 0, {}, {}, true}},
        {component_option(o.component)},
        {noDaemon,
         {exit_refused, "the daemon refused the subscription"},
         timeOver,
         {exit_partly, "stopped before the end of the stream, or it was cut off"}},
        "zeb stream receive /backup > copy"};
    return v;
}

/* ---- Others ---- */

static verb members_verb(members_options &o)
{
    verb v{
        "members",
        "Show who has subscribed",
        R"(Prints a line for each subscriber of which the membership interest TEXT is true (see `zeb help check`),
all of them without one: address key, component ("-" for none), host, and properties. With --watch it goes on, and
each line begins with "+" for one that has come or "-" for one that has gone; those that are there already have
come first.

With --json the members are key, id, component, host, instance, subscription and properties (a list of {"name",
"value"}), those that there are; with --watch "event" is "join" or "leave".)",
        {{"TEXT", "TEXT", "Membership interest", &o.interest}},
        {{"--watch", "", "Go on with those that come and go", &o.watch}, for_option(o.seconds)},
        {noDaemon, {exit_refused, "the daemon refused the interest"}, timeOver},
        "zeb members"};
    return v;
}

static verb call_verb(call_options &o)
{
    verb v{"call",
           "Call a function of a server",
           R"(Calls FUNCTION at the oldest server called SERVER, or with --all at all of them, and writes the
result to standard output octet by octet; with --all each result is one printable line behind its server. What the
server tells meanwhile goes to standard error. The argument is empty unless --body or --file gives it.

With --json each response is a line with kind ("progress", "result" or "error"), body or bodyBase64, or code and
message, and server.)",
           {{"SERVER", "SERVER", "Name of the server, without '\"'", &o.server, 0, 0, {}, {}, true},
            {"FUNCTION", "FUNCTION", "Name of the function", &o.function, 0, 0, {}, {}, true}},
           {
               {"--body", "TEXT", "Argument", &o.body, 0, 0, {}, {"--file"}},
               {"--file", "FILE", "File that holds the argument; - is standard input", &o.file},
               {"--all", "", "Call all servers of the name", &o.all},
               {"--wait", "SECONDS", "Wait so long for a server to appear", &o.wait, 0, 1e6},
               component_option(o.component),
           },
           {noDaemon,
            {exit_refused, "every answer was an error"},
            {exit_time_out, "no server appeared, or --timeout was over"},
            {exit_partly, "some answers were errors, or stopped before all had come"}},
           "zeb call shouter upper --body hello",
           60};
    return v;
}

static verb serve_verb(serve_options &o)
{
    verb v{
        "serve",
        "Offer functions that are run by commands",
        R"(Makes a server called SERVER known and runs a shell command for each call of a function: its standard
input is the argument, its standard output the result, octet by octet. A command that does not end with 0 makes the
call fail with its exit status as the error's code. With --progress-lines each line that a command writes to
standard error goes to the caller at once; without it that goes to standard error here. The command finds the name
of the function in ZEB_FUNCTION.

Calls are served one after the other, with --parallel all at once. SIGINT and SIGTERM end it: calls that run get
five seconds, then their commands get SIGTERM.)",
        {{"SERVER", "SERVER", "Name of the server, without '\"'", &o.server, 0, 0, {}, {}, true}},
        {
            {"--function", "NAME=COMMAND", "A function; may be given up to 63 times", &o.functions},
            {"--progress-lines", "", "Lines of standard error are progress", &o.progressLines},
            {"--parallel", "", "Serve calls at the same time", &o.parallel},
            property_option(o.properties, "A property of the server's address"),
            component_option(o.component),
            for_option(o.seconds),
        },
        {noDaemon, {exit_refused, "the server could not be made known"}, timeOver},
        "zeb serve shouter --function upper='tr a-z A-Z' --for 1"};
    return v;
}

static const char stateAbout[] = "Ask a group for its state, or hold one";

static verb state_get_verb(state_options &o)
{
    verb v{
        "state get",
        "Ask a group for its state",
        R"(Asks the longest-lived member of a group and writes the state that it sends to standard output, octet
by octet; with --json as a line like that of `zeb sub`. The membership interest TEXT says who belongs to the group
(see `zeb help check`).)",
        {{"TEXT", "TEXT", "Membership interest", &o.interest, 0, 0, {}, {}, true}},
        {
            {"--wait", "SECONDS", "Wait so long for a member and its answer", &o.wait, 0, 1e6},
            property_option(o.properties, "A property of the asker's address"),
            component_option(o.component),
        },
        {noDaemon,
         {exit_refused, "the daemon refused the interest"},
         {exit_time_out, "the group has no member, or it did not answer"},
         {exit_partly, "stopped before the state came"}},
        "zeb state get '\"group=demo\"'"};
    return v;
}

static verb state_keep_verb(state_options &o)
{
    verb v{
        "state keep",
        "Hold the state of a group and answer who asks",
        R"(Joins a group, which others find by the properties given, and answers each question for the group's
state with --body, the contents of --file, or standard input. Prints a line for each one who asked.)",
        {},
        {
            property_option(o.properties, "A property by which the group is found"),
            {"--body", "TEXT", "State", &o.body, 0, 0, {}, {"--file"}},
            file_option(o.file, "the state"),
            count_option(o.count),
            for_option(o.seconds),
            component_option(o.component),
        },
        {noDaemon, timeOver, {exit_partly, "fewer asked than --count"}},
        "zeb state keep -p group=demo --body 42 --for 1"};
    return v;
}

/* ---- Without a daemon ---- */

static const char blockAbout[] = "Body blocks to and from JSON";

static const char blockForm[] =
    R"(The form, of which every part may be absent where it is empty:

  {"segments": [{"name": "disk",
                 "elements": [{"name": "free", "value": "17"}, {"name": "serial", "base64": "FwAq"}],
                 "segments": [...]}]}

Lists keep the order of the block. The value of an element is "value" where it is UTF-8, else "base64"; a name
that is no UTF-8 is "nameBase64".)";

static verb block_encode_verb(block_options &o)
{
    verb v{
        "block encode",
        "JSON to a body block",
        std::string(R"(Reads one JSON object from --file or standard input and writes the octets of the body
block that it describes, ready to be a body.

)") + blockForm +
            R"(

Refused are what the octets could not hold or a reader would not give back: unknown members, two segments or two
elements of one name side by side, more than 256 levels, names above 65533 octets, values above 65534, names with
a NUL.)",
        {},
        {file_option(o.file, "the JSON")},
        {},
        R"(echo '{"segments":[{"name":"disk","elements":[{"name":"free","value":"17"}]}]}' |
    zeb block encode | zeb block decode)"};
    return v;
}

static verb block_decode_verb(block_options &o)
{
    verb v{"block decode",
           "A body block to JSON",
           std::string(
               R"(Reads the octets of a body block from --file or standard input and prints it as one JSON
object on one line. `zeb block encode` makes the same octets of it, unless the block has two
segments or elements of one name side by side, which encode refuses.

)") + blockForm,
           {},
           {file_option(o.file, "the octets"), {"--text", "", "Print indented text for people", &o.text}},
           {{exit_refused, "these octets are no body block"},
            {exit_partly, "they are damaged: what comes before the damage was printed"}},
           R"(echo '{"segments":[{"name":"disk"}]}' | zeb block encode | zeb block decode --text)"};
    return v;
}

static verb check_verb(check_options &o)
{
    verb v{"check",
           "Explain a subscription",
           R"(Parses a subscription and prints its normal form (texts of one normal form match alike), its
clauses, one of which must be true, and what the daemon would file each of them under: an event looks only where
its own names and values lead, and tries "remainder" always. A text that is no
subscription is shown with a caret under the octet where it is wrong.

  /app/disk/*              a glob for the type: * is any run without '/', ** any run, ? one octet but '/'
  "@type=/app/disk"        a field: @type @class @id @component @node @process @instance
                           @affectedComponents @affectedNodes @local
  "sev>=3"                 a property; = != ~= (glob) < <= > >=; a name alone asks whether it is there
  ! & | ( )                not, and, or, in this order of binding
  (empty)                  everything

With --interest it is a membership interest, which is about other subscribers: @component @host @instance @tier
@tierid @subscription @id @key, and their properties.

--event FILE evaluates: FILE (- is standard input) holds an object as `zeb sub --json` prints it, for an interest
one as `zeb members --json` does. Absent members have no value.)",
           {{"TEXT", "TEXT", "Subscription", &o.text, 0, 0, {}, {}, true}},
           {
               {"--interest", "", "It is a membership interest", &o.interest},
               {"--event", "FILE", "Say whether it is true for this", &o.event},
           },
           {{exit_refused, "the text is wrong, or not true for --event"}},
           "zeb check '(\"@type~=/app/**\") & (\"sev>=3\" | \"urgent\")'"};
    return v;
}

static verb completion_verb(completion_options &o)
{
    verb v{"completion",
           "Print a completion script",
           R"(Prints the script that lets a shell complete command lines of zeb. For good:
  bash   zeb completion bash > ~/.local/share/bash-completion/completions/zeb
  zsh    zeb completion zsh > a directory of $fpath, as _zeb
  fish   zeb completion fish > ~/.config/fish/completions/zeb.fish)",
           {{"SHELL", "SHELL", "bash, zsh or fish", &o.shell, 0, 0, {"bash", "zsh", "fish"}, {}, true}},
           {},
           {},
           "eval \"$(zeb completion bash)\""};
    return v;
}

static verb help_verb(help_options &o)
{
    verb v{"help",
           "Explain a verb",
           "Prints the manual page of VERB, as `zeb VERB --help` does; without a verb the list of all.",
           {{"VERB", "VERB", "Verb, of one or two words", &o.verb}},
           {{"--markdown", "", "Print the reference page of all verbs", &o.markdown}},
           {},
           "zeb help stream send"};
    return v;
}

/* ---- The daemon and this host ---- */

static verb status_verb(status_options &o)
{
    verb v{
        "status",
        "Say whether the daemon can be reached, and which one it is",
        R"(Connects as any program does, and prints what the daemon tells of itself through its administration
socket when that can be reached: only the daemon's own user and root may use it. The options ask it for more, each
with one line for each thing, and need it.)",
        {},
        {
            {"--clients", "", "Who is connected", &o.clients},
            {"--subscribers", "", "Who has subscribed to what, and how that is filed", &o.subscribers},
            {"--groups", "", "Who watches which group, and who belongs to it", &o.groups},
            {"--counters", "", "Everything that is counted", &o.counters},
            {"--metrics", "", "The counters in the format of a metrics collector", &o.metrics},
        },
        {{exit_no_daemon, "no daemon can be reached, which is printed as well"}, timeOver},
        "zeb status",
        15};
    return v;
}

static verb monitor_verb(monitor_options &o)
{
    verb v{"monitor",
           "Show every event that the daemon routes",
           R"(Prints a line for each event that passes through the daemon, whoever sent it: connection of the
sender, type, component, class, octets, and behind an arrow the receivers as CONNECTION/SUBSCRIBER, or "nobody".
With --connection it prints everything that one client sends ("in") and gets ("out") instead, until that client
is gone; `zeb status --clients` lists the connections. With --json the lines are as the daemon gives them:
{"event": {...}}, {"trace": {...}}, and {"lost": N} where the reader was too slow.)",
           {},
           {
               {"--connection", "N", "Only this client, and everything of it", &o.connection, 1, 1e15},
               count_option(o.count),
               for_option(o.seconds),
           },
           {{exit_no_daemon, "the administration socket cannot be reached"},
            {exit_refused, "there is no such connection"},
            timeOver,
            {exit_partly, "fewer came than --count"}},
           "zeb monitor --for 1"};
    return v;
}

static verb doctor_verb()
{
    verb v{
        "doctor",
        "Find out what is wrong with this host's set-up",
        R"(Looks at everything that programs need for notifications, and prints a line for each: "ok", "note"
(works, but worth knowing) or "wrong", and how to mend it. With --json the members of each line are check,
result, found and mend.)",
        {},
        {},
        {{exit_no_daemon, "no daemon can be reached"}, {exit_refused, "something else is wrong"}, timeOver},
        "zeb doctor",
        30};
    return v;
}

static verb bench_verb(bench_options &o)
{
    verb v{
        "bench",
        "Measure the daemon",
        R"(Publishes to itself through the daemon and measures three things: how many notifications a second
get through when they are published as fast as possible, how long each takes at a fixed rate (percentiles in
microseconds), and how long it takes there and back through a second subscriber. Nobody else is disturbed but by
the load: the types are its own. A measurement of 0 is left out.)",
        {},
        {
            {"--messages", "N", "Notifications for the throughput", &o.messages, 0, 1e9},
            {"--size", "OCTETS", "Octets of a body", &o.size, 16, 16777216},
            {"--rate", "N", "Notifications a second for the latency", &o.rate, 0, 1e6},
            {"--seconds", "SECONDS", "Duration of the latency measurement", &o.seconds, 0.1, 3600},
            {"--trips", "N", "Round trips", &o.trips, 0, 1e9},
        },
        {noDaemon,
         {exit_refused, "the daemon refused a subscription"},
         timeOver,
         {exit_partly, "notifications were lost, or it was stopped"}},
        "zeb bench --messages 20000 --seconds 1 --trips 500"};
    return v;
}

/* ---- All together ---- */

static exit_code complete(const command_table &table, const completion_options &options)
{
    put(completion_script(table, options.shell));
    return exit_done;
}

static exit_code help(const command_table &table, const help_options &options)
{
    std::string name;
    for (const std::string &word : options.verb)
        name += (name.empty() ? "" : " ") + word;
    if (name.empty()) {
        put(options.markdown ? reference_page(table) : overview(table));
        return exit_done;
    }
    bool found = false;
    for (const verb &v : table.verbs) {
        if (v.name != name && !v.name.starts_with(name + " "))
            continue;
        put((found ? "\n" : "") + manual_page(table, v));
        found = true;
    }
    return found ? exit_done : fail(exit_usage, "there is no verb '" + name + "'; `zeb help` lists them");
}

/* Binds FUNCTION to the options it reads. */
template <typename Options>
static verb doing(verb v, exit_code (*function)(const common_options &, const Options &),
                  const Options &options)
{
    v.run = [function, &options](const common_options &common) { return function(common, options); };
    return v;
}

static verb doing(verb v, exit_code (*function)(const common_options &))
{
    v.run = function;
    return v;
}

command_table make_table(settings &s)
{
    command_table table;
    table.common = common_options_of(s.common);
    table.groups = {{"stream", streamAbout}, {"state", stateAbout}, {"block", blockAbout}};
    table.verbs = {
        doing(pub_verb(s.pub), pub, s.pub),
        doing(sub_verb(s.sub), sub, s.sub),
        doing(members_verb(s.members), members, s.members),
        doing(call_verb(s.call), call, s.call),
        doing(serve_verb(s.serve), serve, s.serve),
        doing(state_get_verb(s.get), state_get, s.get),
        doing(state_keep_verb(s.keep), state_keep, s.keep),
        doing(stream_send_verb(s.send), stream_send, s.send),
        doing(stream_receive_verb(s.receive), stream_receive, s.receive),
        doing(block_encode_verb(s.encode), block_encode, s.encode),
        doing(block_decode_verb(s.decode), block_decode, s.decode),
        doing(check_verb(s.check), check, s.check),
        doing(status_verb(s.status), status, s.status),
        doing(monitor_verb(s.monitor), monitor, s.monitor),
        doing(doctor_verb(), doctor),
        doing(bench_verb(s.bench), bench, s.bench),
        completion_verb(s.completion),
        help_verb(s.help),
    };
    return table;
}

exit_code run_verb(const command_table &table, const settings &s, const verb &what)
{
    if (what.name == "completion")
        return complete(table, s.completion);
    return what.name == "help" ? help(table, s.help) : what.run(s.common);
}

std::string meaning(const verb &what, exit_code code)
{
    if (code == exit_done)
        return "done";
    if (code == exit_usage)
        return "wrong usage";
    for (const auto &[number, text] : what.endings)
        if (number == code)
            return text;
    return {};
}

std::string long_name(const option &what)
{
    return what.names.substr(what.names.rfind(',') + 1);
}

struct default_writer {
    std::string operator()(const bool *) const
    {
        return {};
    }
    std::string operator()(const std::optional<std::string> *value) const
    {
        return value->value_or("");
    }
    std::string operator()(const std::string *value) const
    {
        return *value;
    }
    std::string operator()(const words *) const
    {
        return {};
    }
    template <typename Number>
    std::string operator()(const Number *value) const
    {
        if (*value <= 0)
            return {};
        std::string text = std::to_string(*value);
        if (text.find('.') != std::string::npos)
            text.erase(text.find_last_not_of('0') + 1);
        return text.ends_with('.') ? text.substr(0, text.size() - 1) : text;
    }
};

std::string default_text(const option &what)
{
    return std::visit(default_writer(), what.where);
}

} // namespace tool
