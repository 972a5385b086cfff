/* Help texts. Explanations in the table are paragraphs, set anew for the width wanted, and lines that begin
 * with blanks, which stay as they are. */
#include "manual.h"

#include "text.h"

#include <algorithm>

namespace tool
{

static constexpr size_t pageWidth = 80;

static constexpr exit_code allCodes[] = {exit_done,    exit_usage,    exit_no_daemon,
                                         exit_refused, exit_time_out, exit_partly};

static std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    lines.push_back(text.substr(begin));
    return lines;
}

static std::vector<std::string> words_of(const std::string &text)
{
    std::vector<std::string> result;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find(' ', begin), text.size());
        if (end > begin)
            result.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return result;
}

/* TEXT, one paragraph, in lines of WIDTH columns at most behind INDENT blanks. */
static std::string wrapped(const std::string &text, size_t indent, size_t width)
{
    const std::string margin(indent, ' ');
    std::string result, line;
    for (const std::string &word : words_of(text)) {
        if (!line.empty() && indent + line.size() + 1 + word.size() > width) {
            result += margin + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    return line.empty() ? result : result + margin + line + "\n";
}

static bool is_kept(const std::string &line)
{
    return line.empty() || line[0] == ' ';
}

static std::string set_for_page(const std::string &details)
{
    std::string result, paragraph;
    for (const std::string &line : lines_of(details)) {
        if (!is_kept(line)) {
            paragraph += line + " ";
            continue;
        }
        result += wrapped(paragraph, 4, pageWidth);
        paragraph.clear();
        result += line.empty() ? "\n" : "    " + line + "\n";
    }
    return result + wrapped(paragraph, 4, pageWidth);
}

/* "zeb stream send [OPTIONS] TYPE" */
static std::string synopsis(const verb &what)
{
    std::string text = "zeb " + what.name + " [OPTIONS]";
    for (const option &o : what.arguments) {
        const std::string name = std::holds_alternative<words *>(o.where) ? o.value + "..." : o.value;
        text += o.required ? " " + name : " [" + name + "]";
    }
    return text;
}

/* "-p, --property NAME=VALUE" */
static std::string heading(const option &o)
{
    std::string text = o.names;
    const size_t comma = text.find(',');
    if (comma != std::string::npos)
        text.insert(comma + 1, " ");
    if (o.value.empty() || o.names == o.value)
        return text;
    return text + " " + o.value;
}

static std::string explanation(const option &o)
{
    const std::string standard = default_text(o);
    return standard.empty() ? o.about + "." : o.about + ". Default: " + standard + ".";
}

static std::string list(const std::string &title, const std::vector<option> &options)
{
    std::string text;
    for (const option &o : options)
        text += "    " + heading(o) + "\n" + wrapped(explanation(o), 8, pageWidth);
    return text.empty() ? text : "\n" + title + "\n" + text;
}

static std::string endings(const verb &what)
{
    std::string text = "\nEXIT CODES\n";
    for (const exit_code code : allCodes)
        if (const std::string said = meaning(what, code); !said.empty())
            text += "    " + std::to_string(code) + "  " + said + "\n";
    return text;
}

static std::string indented(const std::string &text)
{
    std::string result;
    for (const std::string &line : lines_of(text))
        result += "    " + line + "\n";
    return result;
}

static std::string limit(const verb &what)
{
    if (what.timeout == 0)
        return {};
    return "\n    Without --timeout the run is limited to " + std::to_string(static_cast<int>(what.timeout)) +
           " seconds.\n";
}

std::string manual_page(const command_table &table, const verb &what)
{
    return "NAME\n    zeb " + what.name + " - " + what.brief + "\n\nSYNOPSIS\n    " + synopsis(what) +
           "\n\nDESCRIPTION\n" + set_for_page(what.details) + limit(what) +
           list("ARGUMENTS", what.arguments) + list("OPTIONS", what.options) +
           list("COMMON OPTIONS", table.common) + endings(what) + "\nEXAMPLE\n" + indented(what.example);
}

std::string overview(const command_table &table)
{
    size_t widest = 0;
    for (const verb &v : table.verbs)
        widest = std::max(widest, v.name.size());
    std::string text = "Notifications on the command line: zeb VERB [OPTIONS] [ARGUMENTS]\n\nVERBS\n";
    for (const verb &v : table.verbs)
        text += "    " + v.name + std::string(widest + 2 - v.name.size(), ' ') + v.brief + "\n";
    text += list("COMMON OPTIONS", table.common);
    text += "    --version\n        Print the version.\n    -h, --help\n        Explain.\n";
    return text + R"(
EXIT CODES
    0  done         2  no daemon     4  time-out
    1  wrong usage  3  refused       5  partly done

Results go to standard output, everything else to standard error.
`zeb help VERB` explains a verb.
)";
}

/* ---- The reference page ---- */

static std::string set_for_reference(const std::string &details)
{
    std::string result;
    bool inBlock = false;
    for (const std::string &line : lines_of(details)) {
        const bool isBlock = !line.empty() && line[0] == ' ';
        if (isBlock != inBlock && (isBlock || !line.empty())) {
            if (isBlock && !result.ends_with("\n\n"))
                result += "\n";
            result += isBlock ? "```\n" : "```\n\n";
            inBlock = isBlock;
        } else if (inBlock && line.empty()) {
            result += "```\n";
            inBlock = false;
        }
        result += line + "\n";
    }
    return inBlock ? result + "```\n" : result;
}

static std::string cell(const std::string &text)
{
    return replaced(text, "|", "\\|");
}

static std::string rows(const std::vector<option> &options)
{
    std::string text;
    for (const option &o : options)
        text += "| `" + cell(heading(o)) + "` | " + cell(explanation(o)) + " |\n";
    return text;
}

static std::string reference_of(const verb &what)
{
    std::string text = "\n## zeb " + what.name + "\n\n" + what.brief + ".\n\n    " + synopsis(what) + "\n\n" +
                       set_for_reference(what.details) + "\n";
    const std::string optionRows = rows(what.arguments) + rows(what.options);
    if (!optionRows.empty())
        text += "| Option | Meaning |\n|---|---|\n" + optionRows + "\n";
    if (what.timeout > 0)
        text += "Without `--timeout` the run is limited to " +
                std::to_string(static_cast<int>(what.timeout)) + " seconds.\n\n";
    text += "Exit codes:";
    for (const exit_code code : allCodes)
        if (const std::string said = meaning(what, code); !said.empty())
            text += (code == exit_done ? " " : "; ") + std::to_string(code) + " " + said;
    return text + ".\n\n```\n" + what.example + "\n```\n";
}

std::string reference_page(const command_table &table)
{
    std::string text = R"(# zeb on the command line

`zeb VERB [OPTIONS] [ARGUMENTS]`: one verb a call. Results go to standard output, everything else to standard error.
This page is what `zeb help --markdown` prints; `zeb help VERB` shows the same for one verb.

| Verb | Does |
|---|---|
)";
    for (const verb &v : table.verbs)
        text += "| [" + v.name + "](#zeb-" + replaced(v.name, " ", "-") + ") | " + v.brief + " |\n";
    text += "\nEvery verb has these options:\n\n| Option | Meaning |\n|---|---|\n" + rows(table.common);
    for (const verb &v : table.verbs)
        text += reference_of(v);
    return text;
}

} // namespace tool
