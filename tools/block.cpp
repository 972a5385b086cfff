/* zeb block: body blocks to and from JSON. */
#include "block.h"

#include "input.h"
#include "text.h"
#include "verbs.h"

#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <zeb.h>

namespace tool
{

struct freer {
    void operator()(void *octets) const
    {
        std::free(octets);
    }
};

/* ---- To JSON ---- */

static void put_text(json &into, const char *asText, const char *asOctets, std::string_view octets)
{
    if (is_utf8(octets))
        into[asText] = octets;
    else
        into[asOctets] = base64(octets);
}

static json element_json(const zeb_bb_elem *element)
{
    json result;
    int32_t length = 0;
    const char *value = zeb_bb_elem_getvalue(element, &length);
    put_text(result, "name", "nameBase64", text_of(zeb_bb_elem_getname(element)));
    put_text(result, "value", "base64", std::string_view(value, static_cast<size_t>(length)));
    return result;
}

static json segments_json(const zeb_bb_seglist *segments)
{
    json result = json::array();
    for (zeb_bb_seg *s = zeb_bb_seglist_getfirst(segments); s != nullptr; s = zeb_bb_seglist_getnext(s)) {
        json segment;
        put_text(segment, "name", "nameBase64", text_of(zeb_bb_seg_getname(s)));
        json elements = json::array();
        for (zeb_bb_elem *e = zeb_bb_elemlist_getfirst(zeb_bb_seg_getelements(s)); e != nullptr;
             e = zeb_bb_elemlist_getnext(e))
            elements.push_back(element_json(e));
        if (!elements.empty())
            segment["elements"] = std::move(elements);
        json below = segments_json(zeb_bb_seg_getsegments(s));
        if (!below.empty())
            segment["segments"] = std::move(below);
        result.push_back(std::move(segment));
    }
    return result;
}

static bool encode(const zeb_bb *block, std::string &octets)
{
    int32_t length = 0;
    const std::unique_ptr<void, freer> body(zeb_bb_block2body(block, &length));
    if (body == nullptr)
        return false;
    octets.assign(static_cast<const char *>(body.get()), static_cast<size_t>(length));
    return true;
}

std::optional<decoded_block> decode_block(std::string_view body)
{
    const block_owner block(zeb_bb_body2block(body.data(), static_cast<int32_t>(body.size())));
    if (block == nullptr)
        return std::nullopt;
    decoded_block result;
    result.form = std::make_unique<json>();
    (*result.form)["segments"] = segments_json(zeb_bb_getsegments(block.get()));
    const std::unique_ptr<char, freer> text(zeb_bb_toString(block.get()));
    result.text = text_of(text.get());
    std::string again;
    result.whole = encode(block.get(), again) && again == body;
    return result;
}

/* ---- From JSON ---- */

static constexpr size_t mostSegmentName = 65533, mostElementText = 65534, mostLevels = 256;

/* What is wrong with the JSON, and where: "segments[0].elements[2]: ...". */
struct bad_form {
    std::string words;
};

[[noreturn]] static void refuse(const std::string &where, const std::string &why)
{
    throw bad_form{where + ": " + why};
}

static void allow_only(const json &value, const std::string &where, const std::set<std::string> &members)
{
    if (!value.is_object())
        refuse(where, "an object is expected");
    for (const auto &[name, ignored] : value.items())
        if (members.count(name) == 0)
            refuse(where, "unknown member '" + name + "'");
}

static std::string octets_of(const json &value, const std::string &where, const char *asText,
                             const char *asOctets)
{
    if (value.contains(asText) == value.contains(asOctets))
        refuse(where, std::string("one of '") + asText + "' and '" + asOctets + "' is expected");
    const json &given = value.contains(asText) ? value[asText] : value[asOctets];
    if (!given.is_string())
        refuse(where, "names and values are strings");
    if (value.contains(asText))
        return given.get<std::string>();
    const std::optional<std::string> octets = from_base64(given.get<std::string>());
    if (!octets)
        refuse(where, std::string("'") + asOctets + "' is no base64");
    return *octets;
}

static std::string name_of(const json &value, const std::string &where, size_t most)
{
    std::string name = octets_of(value, where, "name", "nameBase64");
    if (name.find('\0') != std::string::npos)
        refuse(where, "a name cannot hold a NUL");
    if (name.size() > most)
        refuse(where, "the name has more than " + std::to_string(most) + " octets");
    return name;
}

/* The member NAME of VALUE as a list; an empty one when it is absent. */
static const json &list_in(const json &value, const std::string &where, const char *name)
{
    static const json none = json::array();
    if (!value.contains(name))
        return none;
    if (!value[name].is_array())
        refuse(where, std::string("'") + name + "' must be a list");
    return value[name];
}

static void build_elements(zeb_bb_seg *segment, const json &list, const std::string &where)
{
    std::set<std::string> names;
    for (size_t i = 0; i < list.size(); i++) {
        const std::string here = where + ".elements[" + std::to_string(i) + "]";
        allow_only(list[i], here, {"name", "nameBase64", "value", "base64"});
        const std::string name = name_of(list[i], here, mostElementText);
        const std::string value = octets_of(list[i], here, "value", "base64");
        if (value.size() > mostElementText)
            refuse(here, "the value has more than " + std::to_string(mostElementText) + " octets");
        if (!names.insert(name).second)
            refuse(here, "a second element of this name");
        if (zeb_bb_seg_addelement_b(segment, name.c_str(), value.data(),
                                    static_cast<int32_t>(value.size())) == nullptr)
            throw std::bad_alloc();
    }
}

/* Makes a segment of a name where the segments of a list belong. */
using segment_maker = std::function<zeb_bb_seg *(const char *)>;

static void build_segments(const json &list, const std::string &where, size_t level, const segment_maker &add)
{
    if (!list.empty() && level >= mostLevels)
        refuse(where, "more than " + std::to_string(mostLevels) + " levels");
    std::set<std::string> names;
    for (size_t i = 0; i < list.size(); i++) {
        const std::string here = where + "[" + std::to_string(i) + "]";
        allow_only(list[i], here, {"name", "nameBase64", "elements", "segments"});
        const std::string name = name_of(list[i], here, mostSegmentName);
        if (!names.insert(name).second)
            refuse(here, "a second segment of this name");
        zeb_bb_seg *segment = add(name.c_str());
        if (segment == nullptr)
            throw std::bad_alloc();
        build_elements(segment, list_in(list[i], here, "elements"), here);
        build_segments(list_in(list[i], here, "segments"), here + ".segments", level + 1,
                       [segment](const char *below) { return zeb_bb_seg_addsegment(segment, below); });
    }
}

static std::string encode_form(const json &form)
{
    const block_owner block(zeb_bb_create());
    if (block == nullptr)
        throw std::bad_alloc();
    allow_only(form, "the top", {"segments"});
    build_segments(list_in(form, "the top", "segments"), "segments", 0,
                   [&block](const char *name) { return zeb_bb_addsegment(block.get(), name); });
    std::string octets;
    if (!encode(block.get(), octets))
        throw std::bad_alloc();
    return octets;
}

/* ---- The verbs ---- */

exit_code block_encode(const common_options &, const block_options &options)
{
    std::string text;
    const exit_code code = read_whole(options.file, text);
    if (code != exit_done)
        return code;
    try {
        put(encode_form(json::parse(text)));
        return exit_done;
    } catch (const json::parse_error &problem) {
        return fail(exit_usage, "this is no JSON: octet " + std::to_string(problem.byte));
    } catch (const bad_form &problem) {
        return fail(exit_usage, problem.words);
    }
}

exit_code block_decode(const common_options &, const block_options &options)
{
    std::string body;
    const exit_code code = read_whole(options.file, body);
    if (code != exit_done)
        return code;
    const std::optional<decoded_block> block = decode_block(body);
    if (!block)
        return fail(exit_refused, "this is no body block");
    put(options.text ? block->text : line_of(*block->form));
    return block->whole ? exit_done : fail(exit_partly, "the block is damaged; this is what could be read");
}

} // namespace tool
