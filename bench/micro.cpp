/* The small pieces by themselves: handing over in the queue, writing and reading an event, blocks. Writing
 * and reading go through a socket pair within one thread, which is part of the figure. Matching is in
 * matching.cpp.
 *
 *     bench_micro [--benchmark_filter=...]
 */
#include "common.h"

#include "ezebnotification.h"
#include "ezebqueue.h"
#include "ezebruntime.h"

#include <benchmark/benchmark.h>

using namespace bench;

namespace
{

void hand_over(benchmark::State &state)
{
    ezeb_queue *queue = ezeb_queue_create();
    for ([[maybe_unused]] auto _ : state) {
        ezeb_queue_enqueue(queue, queue);
        benchmark::DoNotOptimize(ezeb_queue_dequeue(queue, 0, 0));
    }
    ezeb_queue_destroy(queue, nullptr, 1);
}
BENCHMARK(hand_over);

void hand_over_own_cell(benchmark::State &state)
{
    ezeb_queue *queue = ezeb_queue_create();
    ezeb_queue_cell cell{};
    for ([[maybe_unused]] auto _ : state) {
        ezeb_queue_enqueue_cell(queue, &cell, queue);
        benchmark::DoNotOptimize(ezeb_queue_dequeue(queue, 0, 0));
    }
    ezeb_queue_destroy(queue, nullptr, 1);
}
BENCHMARK(hand_over_own_cell);

zeb_notification *new_event(size_t bodyLength)
{
    const std::string body(bodyLength, 'x');
    zeb_notification *n =
        ezeb_notification_create(eventType.data(), body.data(), static_cast<int32_t>(bodyLength));
    for (size_t i = 0; i < propertyCount; i++)
        ezeb_notification_setProperty(n, propertyNames[i].data(), propertyValues[i].data());
    ezeb_notification_set_pubinfo(n, "bench", "node", "node:4711", "node:47110815", 0);
    return n;
}

void create(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        ezeb_notification_destroy(new_event(static_cast<size_t>(state.range(0))));
}
BENCHMARK(create)->Arg(0)->Arg(256)->Arg(3000);

struct socket_pair {
    int near = -1, far = -1;

    socket_pair()
    {
        int both[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both) == 0, "socketpair");
        near = both[0];
        far = both[1];
    }
    ~socket_pair()
    {
        close(near);
        close(far);
    }
};

void write_event(benchmark::State &state)
{
    static ezeb_runtime runtime;
    ezeb_mutex_init(&runtime.namemutex);
    const socket_pair pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    zeb_notification *n = new_event(static_cast<size_t>(state.range(0)));
    char drain[65536];
    for ([[maybe_unused]] auto _ : state) {
        require(ezeb_notification_write(&runtime, n, sb) == 1, "writing");
        require(recv(pair.far, drain, sizeof(drain), 0) > 0, "recv");
    }
    ezeb_notification_destroy(n);
    ezeb_sb_free(sb);
}
BENCHMARK(write_event)->Arg(0)->Arg(256);

/* As the daemon sends it, behind the request line. */
std::string delivered_event(size_t bodyLength)
{
    std::string text =
        "className: MessageNotification\r\nSubscriberID: 1\r\neventType: " + std::string(eventType) +
        "\r\neventId: node:47110815\r\ncreationTime: 1700000000000\r\n"
        "deliveryTime: 1700000000001\r\naffectedComponents: \r\naffectedNodes: \r\n"
        "generatingComponent: bench\r\ngeneratingProcess: node:4711\r\ngeneratingNode: node\r\n"
        "instanceName: node\r\nLocalOnly: false\r\nnumberOfProperties: 4\r\n";
    for (size_t i = 0; i < propertyCount; i++)
        text.append(propertyNames[i]).append(": ").append(propertyValues[i]).append("\r\n");
    return text + "Content-Length: " + std::to_string(bodyLength) + "\r\nAddrList-Length: 0\r\n\r\n" +
           std::string(bodyLength, 'x');
}

void read_event(benchmark::State &state)
{
    const socket_pair pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    const std::string bytes = delivered_event(static_cast<size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        send_all(pair.far, bytes.data(), bytes.size());
        int32_t *ids = nullptr;
        int32_t count = 0;
        zeb_notification *n = ezeb_notification_read(sb, &ids, &count);
        require(n != nullptr, "reading");
        ezeb_notification_destroy(n);
        free(ids);
    }
    ezeb_sb_free(sb);
}
BENCHMARK(read_event)->Arg(0)->Arg(256);

zeb_bb *new_block()
{
    zeb_bb *block = zeb_bb_create();
    for (int s = 0; s < 10; s++) {
        zeb_bb_seg *segment = zeb_bb_addsegment(block, ("segment-" + std::to_string(s)).c_str());
        for (int e = 0; e < 10; e++)
            zeb_bb_seg_addelement(segment, ("element-" + std::to_string(e)).c_str(), "value of twenty byte");
    }
    return block;
}

void block_encode(benchmark::State &state)
{
    zeb_bb *block = new_block();
    for ([[maybe_unused]] auto _ : state) {
        int32_t length = 0;
        free(zeb_bb_block2body(block, &length));
    }
    zeb_bb_destroy(block);
}
BENCHMARK(block_encode);

void block_decode(benchmark::State &state)
{
    zeb_bb *block = new_block();
    int32_t length = 0;
    void *bytes = zeb_bb_block2body(block, &length);
    for ([[maybe_unused]] auto _ : state)
        zeb_bb_destroy(zeb_bb_body2block(bytes, length));
    free(bytes);
    zeb_bb_destroy(block);
}
BENCHMARK(block_decode);

} // namespace

BENCHMARK_MAIN();
