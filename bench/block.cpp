/* Structured bodies: ten segments of ten elements as a body block, by msgpack and by protobuf. Encoding
 * starts from the structure as its library keeps it and ends with the bytes; decoding goes the other way, and
 * one element is then looked up. They take turns in short runs; the best run counts, which is the one least
 * disturbed. One line of JSON: nanoseconds for each.
 *
 *     bench_block
 */
#include "common.h"

#include "block.pb.h"

#include <algorithm>
#include <map>
#include <msgpack.hpp>
#include <zeb.h>

using namespace bench;

namespace
{

constexpr int segmentCount = 10, elementCount = 10;

std::string segment_name(int i)
{
    return "segment-" + std::to_string(i);
}

std::string element_name(int i)
{
    return "element-of-it-" + std::to_string(i);
}

const std::string elementValue = "value of twenty byte";
const std::string lastSegment = segment_name(segmentCount - 1);
const std::string lastElement = element_name(elementCount - 1);

/* What was decoded must hold the last element. */
void check(std::string_view found)
{
    require(found == elementValue, "decoding");
}

/* ---- zeb ---- */

zeb_bb *zebBlock = nullptr;
std::string zebBytes;

void zeb_prepare()
{
    zebBlock = zeb_bb_create();
    for (int s = 0; s < segmentCount; s++) {
        zeb_bb_seg *segment = zeb_bb_addsegment(zebBlock, segment_name(s).c_str());
        for (int e = 0; e < elementCount; e++)
            zeb_bb_seg_addelement(segment, element_name(e).c_str(), elementValue.c_str());
    }
    int32_t length = 0;
    void *bytes = zeb_bb_block2body(zebBlock, &length);
    zebBytes.assign(static_cast<const char *>(bytes), static_cast<size_t>(length));
    free(bytes);
}

void zeb_encode()
{
    int32_t length = 0;
    void *bytes = zeb_bb_block2body(zebBlock, &length);
    require(static_cast<size_t>(length) == zebBytes.size(), "encoding");
    free(bytes);
}

void zeb_decode()
{
    zeb_bb *block = zeb_bb_body2block(zebBytes.data(), static_cast<int32_t>(zebBytes.size()));
    int32_t length = 0;
    const char *value =
        zeb_bb_seg_getelement(zeb_bb_getsegment(block, lastSegment.c_str()), lastElement.c_str(), &length);
    check(value != nullptr ? std::string_view(value) : "");
    zeb_bb_destroy(block);
}

/* ---- msgpack ---- */

using elements = std::vector<std::pair<std::string, std::string>>;
std::vector<std::pair<std::string, elements>> msgpackBlock;
std::string msgpackBytes;

void msgpack_write(msgpack::sbuffer &out)
{
    msgpack::packer<msgpack::sbuffer> pack(out);
    pack.pack_map(segmentCount);
    for (const auto &[name, inside] : msgpackBlock) {
        pack.pack(name);
        pack.pack_map(elementCount);
        for (const auto &[key, value] : inside) {
            pack.pack(key);
            pack.pack(value);
        }
    }
}

void msgpack_prepare()
{
    for (int s = 0; s < segmentCount; s++) {
        elements inside;
        for (int e = 0; e < elementCount; e++)
            inside.emplace_back(element_name(e), elementValue);
        msgpackBlock.emplace_back(segment_name(s), inside);
    }
    msgpack::sbuffer out;
    msgpack_write(out);
    msgpackBytes.assign(out.data(), out.size());
}

void msgpack_encode()
{
    msgpack::sbuffer out;
    msgpack_write(out);
    require(out.size() == msgpackBytes.size(), "encoding");
}

std::string_view msgpack_text(const msgpack::object &what)
{
    return {what.via.str.ptr, what.via.str.size};
}

const msgpack::object &msgpack_find(const msgpack::object &map, std::string_view name)
{
    for (uint32_t i = 0; i < map.via.map.size; i++)
        if (msgpack_text(map.via.map.ptr[i].key) == name)
            return map.via.map.ptr[i].val;
    fail("a name is missing");
}

void msgpack_decode()
{
    const msgpack::object_handle handle = msgpack::unpack(msgpackBytes.data(), msgpackBytes.size());
    check(msgpack_text(msgpack_find(msgpack_find(handle.get(), lastSegment), lastElement)));
}

/* ---- protobuf ---- */

Block protobufBlock;
std::string protobufBytes;

void protobuf_prepare()
{
    for (int s = 0; s < segmentCount; s++) {
        Segment *segment = protobufBlock.add_segments();
        segment->set_name(segment_name(s));
        for (int e = 0; e < elementCount; e++) {
            Element *element = segment->add_elements();
            element->set_name(element_name(e));
            element->set_value(elementValue);
        }
    }
    require(protobufBlock.SerializeToString(&protobufBytes), "encoding");
}

void protobuf_encode()
{
    std::string out;
    require(protobufBlock.SerializeToString(&out), "encoding");
}

void protobuf_decode()
{
    Block block;
    require(block.ParseFromString(protobufBytes), "decoding");
    for (const Segment &segment : block.segments())
        if (segment.name() == lastSegment)
            for (const Element &element : segment.elements())
                if (element.name() == lastElement)
                    check(element.value());
}

/* ---- Measuring ---- */

double cost_of(void (*work)())
{
    constexpr int times = 200;
    const uint64_t begin = nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < times; i++)
        work();
    return static_cast<double>(nanoseconds(CLOCK_THREAD_CPUTIME_ID) - begin) / times;
}

} // namespace

int main()
{
    zeb_prepare();
    msgpack_prepare();
    protobuf_prepare();
    const std::map<std::string, void (*)()> works = {
        {"zeb_encode", zeb_encode},           {"zeb_decode", zeb_decode},
        {"msgpack_encode", msgpack_encode},   {"msgpack_decode", msgpack_decode},
        {"protobuf_encode", protobuf_encode}, {"protobuf_decode", protobuf_decode}};
    std::map<std::string, double> best;
    for (int round = 0; round < 30; round++) {
        for (const auto &[name, work] : works) {
            const double cost = cost_of(work);
            const auto [at, isNew] = best.emplace(name, cost);
            at->second = std::min(at->second, cost);
        }
    }
    std::string line;
    for (const auto &[name, cost] : best)
        line += (line.empty() ? "{\"" : ", \"") + name + "\": " + std::to_string(cost);
    printf("%s}\n", line.c_str());
    return 0;
}
