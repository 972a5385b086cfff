/* Completion scripts. Each is made of the same facts: the words that may follow a verb, the options that take
 * a value, and of these the ones whose value is a file or one of a few words. */
#include "manual.h"
#include "text.h"

#include <algorithm>

namespace tool
{

static bool takes_value(const option &o)
{
    return !o.value.empty();
}

static bool takes_file(const option &o)
{
    return o.value == "FILE" || o.value == "PATH";
}

static std::string joined(const std::vector<std::string> &list, const std::string &between = " ")
{
    std::string text;
    for (const std::string &item : list)
        text += (text.empty() ? "" : between) + item;
    return text;
}

/* "-p" and "--property" of "-p,--property". */
static std::vector<std::string> names_of(const option &o)
{
    const size_t comma = o.names.find(',');
    if (comma == std::string::npos)
        return {o.names};
    return {o.names.substr(0, comma), o.names.substr(comma + 1)};
}

static std::vector<std::string> option_names(const std::vector<option> &options)
{
    std::vector<std::string> result;
    for (const option &o : options)
        for (const std::string &name : names_of(o))
            result.push_back(name);
    return result;
}

/* The first words of the verbs, each once. */
static std::vector<std::string> first_words(const command_table &table)
{
    std::vector<std::string> result;
    for (const verb &v : table.verbs) {
        const std::string word = v.name.substr(0, v.name.find(' '));
        if (result.empty() || result.back() != word)
            result.push_back(word);
    }
    return result;
}

static std::vector<std::string> second_words(const command_table &table, const std::string &group)
{
    std::vector<std::string> result;
    for (const verb &v : table.verbs)
        if (v.name.starts_with(group + " "))
            result.push_back(v.name.substr(group.size() + 1));
    return result;
}

static std::vector<std::string> choices_of(const verb &v)
{
    for (const option &o : v.arguments)
        if (!o.choices.empty())
            return o.choices;
    return {};
}

/* The options of all verbs that are followed by a value, for telling verbs from values; likewise for files.
 */
static std::vector<std::string> names_where(const command_table &table, bool (*wanted)(const option &))
{
    std::vector<std::string> result;
    const auto add = [&](const std::vector<option> &options) {
        for (const option &o : options)
            for (const std::string &name : names_of(o))
                if (wanted(o) && std::find(result.begin(), result.end(), name) == result.end())
                    result.push_back(name);
    };
    add(table.common);
    for (const verb &v : table.verbs)
        add(v.options);
    return result;
}

/* ---- bash ---- */

static std::string bash_script(const command_table &table)
{
    std::string script = "# Completion of zeb for bash.\n_zeb()\n{\n"
                         "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}\n"
                         "    local verb= words= i\n"
                         "    COMPREPLY=()\n"
                         "    case $previous in\n"
                         "    " +
                         joined(names_where(table, takes_file), " | ") +
                         ")\n        COMPREPLY=($(compgen -f -- \"$current\"))\n        return ;;\n"
                         "    " +
                         joined(names_where(table, takes_value), " | ") +
                         ")\n        return ;;\n    esac\n"
                         "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
                         "        case ${COMP_WORDS[i]} in\n"
                         "        " +
                         joined(names_where(table, takes_value), " | ") +
                         ")\n            ((i++)) ;;\n        -*) ;;\n"
                         "        *)\n            case $verb in\n";
    for (const auto &[group, about] : table.groups)
        script.append("            ")
            .append(group)
            .append(") verb=\"")
            .append(group)
            .append(" ${COMP_WORDS[i]}\" ;;\n");
    script += "            '' | help) verb=${COMP_WORDS[i]} ;;\n            esac ;;\n"
              "        esac\n    done\n    case $verb in\n    '')\n        words=\"" +
              joined(first_words(table)) + "\" ;;\n";
    for (const auto &[group, about] : table.groups)
        script += "    " + group + ")\n        words=\"" + joined(second_words(table, group)) + "\" ;;\n";
    for (const verb &v : table.verbs) {
        std::vector<std::string> offered = option_names(v.options);
        for (const std::string &choice : choices_of(v))
            offered.push_back(choice);
        script += "    '" + v.name + "')\n        words=\"" +
                  joined(v.name == "help" ? first_words(table) : offered) + "\" ;;\n";
    }
    return script + "    esac\n    words+=\" " + joined(option_names(table.common)) +
           " --help\"\n    COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n}\n"
           "complete -o default -F _zeb zeb\n";
}

/* ---- zsh ---- */

static std::string zsh_quoted(std::string text)
{
    for (const char *special : {"\\", "[", "]", ":"})
        text = replaced(std::move(text), special, std::string("\\") + special);
    return replaced(std::move(text), "'", "'\\''");
}

static std::string zsh_option(const option &o)
{
    std::string text;
    for (const std::string &name : names_of(o)) {
        text += " \\\n            '*" + name + "[" + zsh_quoted(o.about) + "]";
        if (takes_value(o))
            text += ":" + o.value + ":" + (takes_file(o) ? "_files" : "");
        text += "'";
    }
    return text;
}

static std::string zsh_arguments(const command_table &table, const verb &v)
{
    std::string text = "        _arguments";
    for (const std::vector<option> *options : {&v.options, &table.common})
        for (const option &o : *options)
            text += zsh_option(o);
    for (const option &o : v.arguments)
        text += " \\\n            '*:" + o.value + ":" +
                (o.choices.empty() ? "" : "(" + joined(o.choices) + ")") + "'";
    return text + " ;;\n";
}

static std::string zsh_script(const command_table &table)
{
    std::string script = "#compdef zeb\n# Completion of zeb for zsh.\n_zeb()\n{\n    local -a verbs\n"
                         "    if ((CURRENT == 2)); then\n        verbs=(\n";
    for (const std::string &word : first_words(table))
        for (const verb &v : table.verbs)
            if (v.name == word)
                script += "            '" + word + ":" + zsh_quoted(v.brief) + "'\n";
    for (const auto &[group, about] : table.groups)
        script += "            '" + group + ":" + zsh_quoted(about) + "'\n";
    script += "        )\n        _describe verb verbs\n        return\n    fi\n"
              "    local verb=$words[2]\n    shift words\n    ((CURRENT--))\n    case $verb in\n";
    for (const auto &[group, about] : table.groups)
        script += "    " + group + ")\n        if ((CURRENT == 2)); then\n            compadd " +
                  joined(second_words(table, group)) +
                  "\n            return\n        fi\n        verb+=\" $words[2]\"\n        shift words\n"
                  "        ((CURRENT--)) ;;\n";
    script += "    esac\n    case $verb in\n";
    for (const verb &v : table.verbs)
        script += "    '" + v.name + "')\n" + zsh_arguments(table, v);
    return script + "    esac\n}\ncompdef _zeb zeb\n";
}

/* ---- fish ---- */

static std::string fish_quoted(std::string text)
{
    text = replaced(std::move(text), "\\", "\\\\");
    return "'" + replaced(std::move(text), "'", "\\'") + "'";
}

static std::string fish_option(const std::string &condition, const option &o)
{
    std::string text = "complete -c zeb" + condition;
    for (const std::string &name : names_of(o))
        text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    if (takes_value(o))
        text += takes_file(o) ? " -rF" : " -x";
    return text + " -d " + fish_quoted(o.about) + "\n";
}

/* "-n 'condition'" that is true behind the words of a verb. */
static std::string fish_condition(const std::string &name)
{
    const size_t blank = name.find(' ');
    std::string text = " -n '__fish_seen_subcommand_from " + name.substr(0, blank);
    if (blank != std::string::npos)
        text += "; and __fish_seen_subcommand_from " + name.substr(blank + 1);
    return text + "'";
}

static std::string fish_script(const command_table &table)
{
    std::string script = "# Completion of zeb for fish.\ncomplete -c zeb -f\n";
    for (const option &o : table.common)
        script += fish_option("", o);
    for (const auto &[group, about] : table.groups) {
        script += "complete -c zeb -n __fish_use_subcommand -a " + group + " -d " + fish_quoted(about) + "\n";
        script += "complete -c zeb -n '__fish_seen_subcommand_from " + group +
                  "; and not __fish_seen_subcommand_from " + joined(second_words(table, group)) + "' -a '" +
                  joined(second_words(table, group)) + "'\n";
    }
    for (const verb &v : table.verbs) {
        if (v.name.find(' ') == std::string::npos)
            script += "complete -c zeb -n __fish_use_subcommand -a " + v.name + " -d " +
                      fish_quoted(v.brief) + "\n";
        for (const option &o : v.options)
            script += fish_option(fish_condition(v.name), o);
        if (!choices_of(v).empty())
            script += "complete -c zeb" + fish_condition(v.name) + " -a '" + joined(choices_of(v)) + "'\n";
    }
    return script;
}

std::string completion_script(const command_table &table, const std::string &shell)
{
    if (shell == "bash")
        return bash_script(table);
    return shell == "zsh" ? zsh_script(table) : fish_script(table);
}

} // namespace tool
