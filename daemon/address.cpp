#include "address.h"

#include <algorithm>

namespace zebd
{

static constexpr std::string_view signature("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E", 12);
static constexpr char tagSegment = 1, tagElement = 2;
static constexpr size_t longestText = 65534; /* with its NUL it still fits the length of every record */

/* ---- Octets of one address ---- */

static constexpr char addressVersion = 1;

static void add_number(std::string &octets, uint64_t value, unsigned width)
{
    for (unsigned i = width; i-- > 0;)
        octets.push_back(static_cast<char>(value >> (8 * i)));
}

static uint64_t take_number(std::string_view &octets, size_t width)
{
    uint64_t value = 0;
    for (const char octet : octets.substr(0, width))
        value = value << 8 | static_cast<unsigned char>(octet);
    octets.remove_prefix(width);
    return value;
}

/* The node comes last, since it has no fixed length. */
static std::string octets_of(const subscriber &member, const daemon_identity &identity)
{
    std::string octets(1, addressVersion);
    add_number(octets, identity.incarnation, 8);
    add_number(octets, member.connection, 8);
    add_number(octets, member.serial, 8);
    return octets + identity.node;
}

address_form address_read(std::string_view octets, const daemon_identity &identity, uint64_t &serial,
                          connection_id &connection)
{
    static constexpr size_t shortest = 1 + 3 * 8;
    if (octets.empty())
        return address_form::malformed;
    if (octets[0] != addressVersion)
        return address_form::elsewhere;
    if (octets.size() < shortest)
        return address_form::malformed;
    octets.remove_prefix(1);
    const uint64_t incarnation = take_number(octets, 8);
    connection = take_number(octets, 8);
    serial = take_number(octets, 8);
    const bool mine = incarnation == identity.incarnation && octets == identity.node;
    return mine ? address_form::mine : address_form::elsewhere;
}

/* ---- Writing ---- */

static void add_segment(std::string &records, std::string_view name, char depth)
{
    records.push_back(tagSegment);
    add_number(records, name.size() + 1, 2);
    records += name;
    records += {'\0', depth};
}

static void add_element(std::string &records, std::string_view name, std::string_view value)
{
    records.push_back(tagElement);
    add_number(records, name.size(), 2);
    records += name;
    records.push_back('\0');
    add_number(records, value.size(), 2);
    records += value;
    records.push_back('\0');
}

/* What is absent is left out: a client then knows it as absent, not as empty. */
static std::string records_of(const subscriber &member, const daemon_identity &identity)
{
    std::string records;
    add_element(records, "id", member.id);
    if (!member.request.component.empty())
        add_element(records, "component", member.request.component);
    add_element(records, "hostname", identity.node);
    add_element(records, "instancename", identity.instance);
    add_element(records, "subscription", member.request.subscription);
    add_element(records, "key", member.key);
    add_element(records, "address", octets_of(member, identity));
    add_segment(records, "properties", 1);
    for (const auto &[name, value] : member.request.properties)
        add_element(records, name, value);
    records.shrink_to_fit();
    return records;
}

bool address_complete(subscriber &member, const daemon_identity &identity, std::string &why)
{
    size_t longest = std::max(member.request.component.size(), member.request.subscription.size());
    for (const auto &[name, value] : member.request.properties)
        longest = std::max({longest, name.size(), value.size()});
    if (longest > longestText) {
        why = "E_LIMIT 0 a text of more than " + std::to_string(longestText) + " octets fits no address";
        return false;
    }
    member.id = std::to_string(member.serial);
    member.key = identity.node + "." + std::to_string(identity.incarnation) + "." +
                 std::to_string(member.connection) + "." + member.id;
    member.records = records_of(member, identity);
    return true;
}

void address_list_add(address_list &list, std::string_view role, const subscriber &member)
{
    if (list.octets.empty())
        list.octets = signature;
    list.number = list.role == role ? list.number + 1 : 0;
    list.role = role;
    const size_t begin = list.octets.size();
    add_segment(list.octets, role == roleSource ? list.role : list.role + std::to_string(list.number), 0);
    list.octets += member.records;
    const slice run{static_cast<uint32_t>(begin), static_cast<uint32_t>(list.octets.size() - begin)};
    list.places.push_back({member.serial, run});
}

subject address_subject(const subscriber &member, const daemon_identity &identity,
                        std::vector<property_view> &properties)
{
    subject what;
    const auto set = [&what](field which, std::string_view value) {
        what.fields[static_cast<size_t>(which)] = value;
    };
    set(field::id, member.id);
    set(field::key, member.key);
    set(field::component, member.request.component);
    set(field::subscription, member.request.subscription);
    set(field::host, identity.node);
    set(field::instance, identity.instance);
    properties.clear();
    for (const auto &[name, value] : member.request.properties)
        properties.push_back({name, value});
    what.properties = properties_in_order(properties);
    return what;
}

/* ---- Reading ---- */

struct list_reader {
    std::string_view rest;
    std::vector<std::string_view> &addresses;
    int depth = -1;          /* of the segment at hand; -1 before the first */
    bool hasAddress = false; /* the destination at hand has its address */
    std::string_view problem;
};

static bool fail(list_reader &reader, std::string_view problem)
{
    reader.problem = problem;
    return false;
}

/* A text of LENGTH octets with a NUL behind it. */
static bool take_text(list_reader &reader, size_t length, std::string_view &text)
{
    if (reader.rest.size() <= length || reader.rest[length] != '\0')
        return fail(reader, "a text runs over its end");
    text = reader.rest.substr(0, length);
    reader.rest.remove_prefix(length + 1);
    return true;
}

static bool take_length(list_reader &reader, size_t &length)
{
    if (reader.rest.size() < 2)
        return fail(reader, "a length is cut off");
    length = take_number(reader.rest, 2);
    return true;
}

static bool ends_destination(list_reader &reader)
{
    return reader.depth < 0 || reader.hasAddress || fail(reader, "a destination without address");
}

static bool take_segment(list_reader &reader)
{
    size_t length = 0;
    std::string_view name;
    if (!take_length(reader, length))
        return false;
    if (length == 0)
        return fail(reader, "a name without its end");
    if (!take_text(reader, length - 1, name))
        return false;
    if (reader.rest.empty())
        return fail(reader, "a depth is cut off");
    const int depth = static_cast<unsigned char>(reader.rest[0]);
    reader.rest.remove_prefix(1);
    if (depth > reader.depth + 1)
        return fail(reader, "a depth that skips one");
    if (depth == 0) {
        if (!ends_destination(reader))
            return false;
        if (name.size() < 2 || name[1] != 's')
            return fail(reader, "an address that is no destination");
        reader.hasAddress = false;
    }
    reader.depth = depth;
    return true;
}

static bool take_element(list_reader &reader)
{
    size_t length = 0;
    std::string_view name, value;
    if (reader.depth < 0)
        return fail(reader, "an element before the first address");
    if (!take_length(reader, length) || !take_text(reader, length, name) || !take_length(reader, length) ||
        !take_text(reader, length, value))
        return false;
    if (reader.depth > 0 || name != "address")
        return true;
    if (reader.hasAddress)
        return fail(reader, "a destination with two addresses");
    reader.hasAddress = true;
    reader.addresses.push_back(value);
    return true;
}

static bool take_record(list_reader &reader)
{
    const char tag = reader.rest[0];
    reader.rest.remove_prefix(1);
    if (tag == tagSegment)
        return take_segment(reader);
    return tag == tagElement ? take_element(reader) : fail(reader, "an unknown record");
}

bool address_list_read(std::string_view list, std::vector<std::string_view> &addresses, std::string &why)
{
    addresses.clear();
    list_reader reader{list, addresses, -1, false, {}};
    bool ok = list.starts_with(signature) || fail(reader, "no signature");
    reader.rest.remove_prefix(ok ? signature.size() : 0);
    ok = ok && (!reader.rest.empty() || fail(reader, "nothing in it"));
    while (ok && !reader.rest.empty())
        ok = take_record(reader);
    ok = ok && ends_destination(reader);
    if (!ok)
        why = "address list: " + std::string(reader.problem) + ", " + std::to_string(reader.rest.size()) +
              " octets before its end";
    return ok;
}

} // namespace zebd
