/* A slow decoder of body blocks, written in the words of the format: it copies everything, looks at every
 * bound, and recurses as the format nests. The library's is held against it, both shown as text. */
#ifndef ZEB_TESTS_SLOW_DECODER_H
#define ZEB_TESTS_SLOW_DECODER_H

#include "ezebbodyblock.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace unit
{

inline constexpr std::string_view SIGNATURE{"\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E", 12};

/* ---- Showing ---- */

inline std::string counted(std::string_view s)
{
    return std::to_string(s.size()) + ":" + std::string(s);
}

inline std::string show(const zeb_bb_seglist *list)
{
    std::string text;
    for (const zeb_bb_seg *s = zeb_bb_seglist_getfirst(list); s != nullptr; s = zeb_bb_seglist_getnext(s)) {
        text += "(" + counted(zeb_bb_seg_getname(s));
        for (const zeb_bb_elem *e = s->elements.first; e != nullptr; e = zeb_bb_elemlist_getnext(e)) {
            int32_t length = 0;
            const char *value = zeb_bb_elem_getvalue(e, &length);
            text += value[length] != '\0' ? " (no NUL)" : "";
            text +=
                " " + counted(zeb_bb_elem_getname(e)) + "=" + counted({value, static_cast<size_t>(length)});
        }
        text += " " + show(&s->segments) + ")";
    }
    return text;
}

/* ---- The slow decoder ---- */

struct node {
    std::string name;
    int level;
    std::vector<std::pair<std::string, std::string>> elements;
    std::vector<node> segments;
};

class slow_decoder
{
  public:
    explicit slow_decoder(std::string_view records) : rest(records), unbounded(records.size()) {}

    std::vector<node> run()
    {
        std::vector<node> top;
        if (tag() != 1)
            return top;
        const std::optional<node> first = segment();
        if (first && first->level == 0)
            level(0, top, *first);
        return top;
    }

  private:
    int tag()
    {
        if (rest.size() <= 3)
            return 4;
        return static_cast<unsigned char>(bytes(1)[0]);
    }

    std::string bytes(size_t count)
    {
        std::string taken(rest.substr(0, count));
        rest.remove_prefix(count);
        return taken;
    }

    /* The length field plus one, modulo 65536. */
    std::optional<size_t> run_length()
    {
        if (rest.size() < 2)
            return std::nullopt;
        const std::string field = bytes(2);
        return (static_cast<unsigned char>(field[0]) * 256U + static_cast<unsigned char>(field[1]) + 1) %
               65536;
    }

    static std::string up_to_nul(const std::string &s)
    {
        return s.substr(0, s.find('\0'));
    }

    std::optional<node> segment()
    {
        const std::optional<size_t> run = run_length();
        if (!run || *run == 0 || rest.size() < *run)
            return std::nullopt;
        std::string all = bytes(*run);
        const int its_level = static_cast<unsigned char>(all.back());
        all.pop_back();
        return node{up_to_nul(all), its_level, {}, {}};
    }

    /* The run of one name or value, null when it is absent. A run of 0 is the text up to a NUL, which must be
     * there, and takes nothing; all such texts together look through no more bytes than there are records. */
    std::optional<std::string> run_of(size_t run)
    {
        if (run == 0) {
            const std::string looked(rest.substr(0, unbounded));
            const size_t nul = looked.find('\0');
            unbounded -= nul == std::string::npos ? looked.size() : nul;
            return nul == std::string::npos ? std::nullopt : std::optional(looked.substr(0, nul));
        }
        if (rest.size() < run)
            return std::nullopt;
        std::string all = bytes(run);
        return all;
    }

    bool element(node &s)
    {
        const std::optional<size_t> name_run = run_length();
        if (!name_run)
            return false;
        const std::optional<std::string> name = run_of(*name_run);
        const std::optional<size_t> value_run = run_length();
        if (!value_run)
            return false;
        std::optional<std::string> value = run_of(*value_run);
        if (!name || !value)
            return true;
        if (*value_run != 0)
            value->pop_back();
        const std::string key = up_to_nul(*name);
        std::erase_if(s.elements, [&](const auto &pair) { return pair.first == key; });
        s.elements.emplace_back(key, *value);
        return true;
    }

    /* Everything from S on at level L; returns the first segment that belongs further up. */
    std::optional<node> level(int L, std::vector<node> &list, node S)
    {
        for (;;) {
            list.push_back(std::move(S));
            node &current = list.back();
            int t = tag();
            for (; t == 2; t = tag()) {
                if (!element(current))
                    return std::nullopt;
            }
            if (t == 4)
                return std::nullopt;
            std::optional<node> T = segment();
            if (T && T->level > L)
                T = T->level == L + 1 ? level(L + 1, current.segments, *T) : std::nullopt;
            if (!T || T->level < L)
                return T;
            S = *T;
        }
    }

    std::string_view rest;
    size_t unbounded;
};

inline std::string show(const std::vector<node> &list)
{
    std::string text;
    for (const node &s : list) {
        text += "(" + counted(s.name);
        for (const auto &[name, value] : s.elements)
            text += " " + counted(name) + "=" + counted(value);
        text += " " + show(s.segments) + ")";
    }
    return text;
}

inline std::string slowly_decoded(std::string_view whole)
{
    if (whole.size() < SIGNATURE.size() || whole.substr(0, SIGNATURE.size()) != SIGNATURE)
        return "<null>";
    return show(slow_decoder(whole.substr(SIGNATURE.size())).run());
}

/* INPUT as a body block: behind the signature, unless it begins like one. */
inline std::string with_signature(std::string_view input)
{
    if (input.starts_with(SIGNATURE.substr(0, 2)))
        return std::string(input);
    return std::string(SIGNATURE) + std::string(input);
}

} // namespace unit

#endif
