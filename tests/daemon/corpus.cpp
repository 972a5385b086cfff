#include "corpus.h"

#include <fstream>
#include <sstream>

namespace corpus
{

static std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> columns;
    size_t begin = 0;
    for (;;) {
        const size_t tab = line.find('\t', begin);
        columns.push_back(line.substr(begin, tab - begin));
        if (tab == std::string::npos)
            return columns;
        begin = tab + 1;
    }
}

static std::string unescape(const std::string &name)
{
    std::string result;
    for (size_t i = 0; i < name.size(); i++) {
        if (name[i] == '%') {
            result.push_back(static_cast<char>(std::stoi(name.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            result.push_back(name[i]);
        }
    }
    return result;
}

struct known_field {
    const char *name;
    zebd::field which;
};

static constexpr known_field knownFields[] = {
    {"@type", zebd::field::type},
    {"@class", zebd::field::event_class},
    {"@id", zebd::field::id},
    {"@component", zebd::field::component},
    {"@node", zebd::field::node},
    {"@process", zebd::field::process},
    {"@instance", zebd::field::instance},
    {"@affectedComponents", zebd::field::affected_components},
    {"@affectedNodes", zebd::field::affected_nodes},
    {"@local", zebd::field::local},
    {"@host", zebd::field::host},
    {"@subscription", zebd::field::subscription},
    {"@key", zebd::field::key},
};

static void fill(thing &t)
{
    for (const auto &[name, value] : t.fields)
        for (const known_field &known : knownFields)
            if (name == known.name)
                t.what.fields[static_cast<size_t>(known.which)] = value;
    for (const auto &[name, value] : t.properties)
        t.views.push_back({name, value});
    t.what.properties = zebd::properties_in_order(t.views);
}

static std::unique_ptr<thing> read_thing(const std::vector<std::string> &columns)
{
    auto t = std::make_unique<thing>();
    t->kind = columns[0] == "event" ? zebd::subject_kind::event : zebd::subject_kind::address;
    for (size_t i = 2; i < columns.size(); i++) {
        const size_t sign = columns[i].find('=');
        const std::string name = columns[i].substr(0, sign);
        const std::string value = columns[i].substr(sign + 1);
        if (name[0] == '@')
            t->fields.emplace_back(name, value);
        else
            t->properties.emplace_back(unescape(name), value);
    }
    fill(*t);
    return t;
}

file load()
{
    file result;
    std::ifstream in(ZEB_CORPUS_DIR "/subscriptions.txt");
    std::string line;
    for (int number = 1; std::getline(in, line); number++) {
        if (line.empty() || line[0] == '#')
            continue;
        std::vector<std::string> columns = split(line);
        if (columns[0] == "event" || columns[0] == "address")
            result.things[columns[1]] = read_thing(columns);
        else
            result.entries.push_back({number, std::move(columns)});
    }
    return result;
}

} // namespace corpus
