/* zeb check: explains a subscription with the daemon's own parser, and evaluates it. */
#include "index.h"
#include "input.h"
#include "json.h"
#include "message.h"
#include "render.h"
#include "subscription.h"
#include "text.h"
#include "verbs.h"

namespace tool
{

using zebd::field;
using zebd::subject_kind;

/* ---- What is evaluated ---- */

/* An event or address with its own texts, of which the subject borrows. */
struct evaluated {
    std::array<std::string, zebd::field_count> fields;
    std::vector<std::pair<std::string, std::string>> properties;
};

static constexpr std::pair<const char *, field> eventFields[] = {
    {"type", field::type},
    {"id", field::id},
    {"component", field::component},
    {"node", field::node},
    {"process", field::process},
    {"instance", field::instance},
    {"affectedComponents", field::affected_components},
    {"affectedNodes", field::affected_nodes},
};

static constexpr std::pair<const char *, field> addressFields[] = {
    {"component", field::component},
    {"host", field::host},
    {"instance", field::instance},
    {"tier", field::tier},
    {"tierid", field::tierid},
    {"subscription", field::subscription},
    {"id", field::id},
    {"key", field::key},
};

static std::string text_member(const json &value, const char *name)
{
    const auto at = value.find(name);
    return at != value.end() && at->is_string() ? at->get<std::string>() : std::string();
}

/* The name that the language knows for a class as `sub --json` prints it. */
static std::string wire_class(const std::string &name)
{
    for (uint32_t cls = 0; cls <= ZEB_CLASS_LEAVEGROUP; cls++)
        if (name == class_name(cls))
            return std::string(zebd::event_class_name(static_cast<zebd::event_class>(cls)));
    return name;
}

static void take_properties(const json &given, evaluated &into)
{
    if (given.is_object())
        for (const auto &[name, value] : given.items())
            into.properties.emplace_back(name, value.is_string() ? value.get<std::string>() : value.dump());
    if (given.is_array())
        for (const json &one : given)
            into.properties.emplace_back(text_member(one, "name"), text_member(one, "value"));
}

static evaluated evaluated_of(const json &value, subject_kind kind)
{
    evaluated result;
    const auto take = [&](const auto &names) {
        for (const auto &[name, which] : names)
            result.fields[static_cast<size_t>(which)] = text_member(value, name);
    };
    if (kind == subject_kind::address) {
        take(addressFields);
    } else {
        take(eventFields);
        result.fields[static_cast<size_t>(field::event_class)] = wire_class(text_member(value, "class"));
        result.fields[static_cast<size_t>(field::local)] = value.value("local", false) ? "true" : "false";
    }
    if (value.contains("properties"))
        take_properties(value["properties"], result);
    return result;
}

static bool is_true_for(const zebd::subscription &parsed, const evaluated &what)
{
    zebd::subject subject;
    for (size_t i = 0; i < zebd::field_count; i++)
        subject.fields[i] = what.fields[i];
    std::vector<zebd::property_view> properties;
    for (const auto &[name, value] : what.properties)
        properties.push_back({name, value});
    subject.properties = zebd::properties_in_order(properties);
    return zebd::subscription_matches(parsed, subject);
}

/* ---- What is said ---- */

static void put_error(bool asJson, const std::string &text, const zebd::parse_error &error)
{
    const std::string line = zebd::parse_error_text(error);
    if (asJson) {
        json result;
        result["valid"] = false;
        result["code"] = line.substr(0, line.find(' '));
        result["offset"] = error.offset;
        result["words"] = error.words;
        put(line_of(result));
        return;
    }
    const size_t column = character_count(escaped(std::string_view(text).substr(0, error.offset)));
    say(line + "\n  " + escaped(text) + "\n  " + std::string(column, ' ') + "^");
}

static const char *scope_text(const zebd::subscription &parsed)
{
    switch (parsed.scope) {
    case zebd::subscription::scope_t::nothing:
        return "nothing";
    case zebd::subscription::scope_t::everything:
        return "everything";
    case zebd::subscription::scope_t::matching:
        break;
    }
    return "matching";
}

struct analysis {
    std::string normal;
    const char *scope;
    std::vector<std::string> clauses; /* empty when they are too many */
    std::vector<std::string> filed;   /* how the daemon's index would file each of them */
    std::optional<bool> matches;
};

static std::string literal_text(const zebd::literal &what, subject_kind kind)
{
    zebd::subscription alone;
    alone.scope = zebd::subscription::scope_t::matching;
    alone.root.test = *what.test;
    return (what.negated ? "!" : "") + zebd::subscription_normal_text(alone, kind);
}

static std::vector<std::string> clause_texts(const zebd::subscription &parsed, subject_kind kind)
{
    std::vector<std::string> texts;
    std::vector<zebd::clause> clauses;
    if (parsed.scope != zebd::subscription::scope_t::matching ||
        !zebd::clauses_expand(parsed.root, zebd::clause_limits(), clauses))
        return texts;
    for (const zebd::clause &clause : clauses) {
        std::string text;
        for (const zebd::literal &what : clause)
            text += (text.empty() ? "" : " & ") + literal_text(what, kind);
        texts.push_back(text);
    }
    return texts;
}

static analysis explain(const zebd::subscription &parsed, subject_kind kind)
{
    static constexpr uint64_t holder = 1;
    zebd::subscription_index index;
    index.kind = kind;
    zebd::index_add(index, holder, parsed);
    return {zebd::subscription_normal_text(parsed, kind),
            scope_text(parsed),
            clause_texts(parsed, kind),
            zebd::index_describe(index, holder),
            {}};
}

static json as_json(const analysis &f)
{
    json result;
    result["valid"] = true;
    result["scope"] = f.scope;
    result["normal"] = f.normal;
    result["clauses"] = f.clauses;
    result["filed"] = f.filed;
    if (f.matches)
        result["matches"] = *f.matches;
    return result;
}

static std::string readable(const analysis &f)
{
    std::string text = "scope: " + std::string(f.scope) + "\nnormal form: " + escaped(f.normal) + "\n";
    for (size_t i = 0; i < f.filed.size(); i++) {
        if (i < f.clauses.size())
            text += "clause " + std::to_string(i + 1) + ": " + escaped(f.clauses[i]) + "\n";
        text += "filed under: " + escaped(f.filed[i]) + "\n";
    }
    if (f.matches)
        text += std::string("matches: ") + (*f.matches ? "yes" : "no") + "\n";
    return text;
}

static exit_code evaluate(const std::string &file, const zebd::subscription &parsed, subject_kind kind,
                          std::optional<bool> &matches)
{
    std::string text;
    const exit_code code = read_whole(file == "-" ? std::nullopt : std::optional(file), text);
    if (code != exit_done)
        return code;
    try {
        const json value = json::parse(text);
        if (!value.is_object())
            return fail(exit_usage, "--event: an object is expected");
        matches = is_true_for(parsed, evaluated_of(value, kind));
        return exit_done;
    } catch (const json::exception &) {
        return fail(exit_usage, "--event: this is no JSON of an event or a member");
    }
}

exit_code check(const common_options &common, const check_options &options)
{
    const subject_kind kind = options.interest ? subject_kind::address : subject_kind::event;
    zebd::subscription parsed;
    zebd::parse_error error;
    if (!zebd::subscription_parse(options.text, kind, zebd::language_limits(), parsed, error)) {
        put_error(common.json, options.text, error);
        return exit_refused;
    }
    analysis f = explain(parsed, kind);
    if (options.event)
        if (const exit_code code = evaluate(*options.event, parsed, kind, f.matches); code != exit_done)
            return code;
    put(common.json ? line_of(as_json(f)) : readable(f));
    return f.matches.value_or(true) ? exit_done : exit_refused;
}

} // namespace tool
