/* A client of the daemon for the storms. It publishes numbered notifications and checks the numbers of those
 * that arrive, its own and others'; what it has seen it says when asked.
 *
 *   storm_client NAME MODE [record]
 *
 * MODE says how it receives: none, receive, callback or list. With "record" it keeps every number that
 * arrives, and what the kernel takes from the library. Lines on its standard input:
 *
 *   every MICROSECONDS    publishes one each time, from now on; 0 pauses. Answers "every"
 *   publish COUNT         publishes so many at once. Answers "published" and how many there were in all
 *   churn                 makes, uses and closes subscribers, streams and remote calls from now on. Answers
 * "churn" report                answers "report", how many of these rounds there were, and for each name
 *                         "NAME:LAST:COUNT:BACK:GAPS:DAMAGED"
 *   save DIRECTORY        has the records written to the files taken and arrived there in the end. Answers
 * "save"
 *
 * At the end of its input it shuts the library down, which sends what is queued, and says "done". */
#include "records.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <malloc.h>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>
#include <zeb.h>

namespace
{

const char *ownName = "";
bool recording = false;

/* ---- Publishing ---- */

zeb_publisher *publisher = nullptr;
std::mutex publishing; /* guards published */
uint64_t published = 0;
std::atomic<int> pause{0}; /* microseconds between two notifications; 0 for none */
std::atomic<bool> ending{false};

/* "NAME NUMBER " and a filler that follows from the number. Where everything is recorded some are so large
 * that they take several writes. */
std::string body_of(const std::string &name, uint64_t number)
{
    const size_t length = recording && number % 64 == 63 ? 50000 : number * 7919 % 1500;
    return name + " " + std::to_string(number) + " " +
           std::string(length, static_cast<char>('a' + number % 26));
}

uint64_t publish(uint64_t count)
{
    const std::lock_guard hold(publishing);
    for (uint64_t i = 0; i < count; i++) {
        const std::string body = body_of(ownName, published++);
        zeb_publisher_publish(publisher, zeb_notification_create("/storm/number", body.data(),
                                                                 static_cast<int32_t>(body.size())));
    }
    return published;
}

void publish_on()
{
    while (!ending) {
        const int now = pause;
        if (now > 0)
            publish(1);
        std::this_thread::sleep_for(std::chrono::microseconds(now > 0 ? now : 1000));
    }
}

/* ---- Receiving ---- */

struct sequence {
    uint64_t next = 0, last = 0, count = 0, back = 0, gaps = 0, damaged = 0;
};

std::mutex receiving; /* guards what follows */
std::map<std::string, sequence> arrived;
std::vector<std::pair<std::string, uint64_t>> kept;

void take(const zeb_notification *n)
{
    int32_t length = 0;
    const char *octets = static_cast<const char *>(zeb_notification_body(n, &length));
    const std::string body(octets != nullptr ? octets : "", octets != nullptr ? size_t(length) : 0);
    const size_t space = body.find(' ');
    const std::string name = body.substr(0, space);
    const uint64_t number = strtoull(body.c_str() + (space < body.size() ? space : 0), nullptr, 10);
    const std::lock_guard hold(receiving);
    sequence &s = arrived[name];
    s.damaged += body != body_of(name, number) ? 1 : 0;
    s.back += s.count > 0 && number < s.next ? 1 : 0;
    s.gaps += s.count > 0 && number > s.next ? number - s.next : 0;
    s.next = number + 1;
    s.last = number;
    s.count++;
    if (recording)
        kept.emplace_back(name, number);
}

zeb_subscriber *subscriber = nullptr;
zeb_subscriberlist *list = nullptr;

int32_t take_called(zeb_notification *n, void *)
{
    take(n);
    return 0;
}

void receive_on()
{
    while (zeb_notification *n = zeb_subscriber_receive(subscriber, 1, 0)) {
        take(n);
        zeb_subscriber_relinquish(subscriber, n);
    }
}

void receive_from_list()
{
    while (!ending) {
        zeb_subscriber *ready = zeb_subscriber_multirecv(list, 1, 2000);
        zeb_notification *n = ready != nullptr ? zeb_subscriber_receive(ready, 0, 0) : nullptr;
        if (n == nullptr)
            continue;
        take(n);
        zeb_subscriber_relinquish(ready, n);
    }
}

/* Subscribes; the thread receives where the mode needs one. */
std::thread subscribe(const std::string &mode)
{
    if (mode == "none")
        return {};
    subscriber = zeb_subscriber_create("/storm/number", "storm", nullptr, nullptr, nullptr);
    if (mode == "receive")
        return std::thread(receive_on);
    if (mode == "list") {
        list = zeb_subscriberlist_create();
        zeb_subscriberlist_add(list, subscriber);
        return std::thread(receive_from_list);
    }
    zeb_subscriber_registercallback(subscriber, take_called, nullptr, 0);
    return {};
}

/* ---- Churn: everything is made, used and closed again, whatever becomes of the connection ---- */

constexpr int32_t limit = 2000;  /* of each wait, in milliseconds */
constexpr int churnPause = 1000; /* between two rounds, in milliseconds */
std::mutex churning;             /* held during a round; guards what follows */
bool wantsChurn = false;
std::atomic<uint64_t> rounds{0}; /* read without it */

void churn_subscriber()
{
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "storm", "1");
    zeb_subscriber *member =
        zeb_subscriber_create_wtimeout("/storm/churn", "storm", "(\"storm=1\")", properties, nullptr, limit);
    zeb_proplist_destroy(&properties);
    if (member == nullptr)
        return;
    zeb_publisher_publish(publisher, zeb_notification_create("/storm/churn", "x", 1));
    for (int i = 0; i < 2; i++)
        if (zeb_notification *n = zeb_subscriber_receive(member, 1, limit))
            zeb_subscriber_relinquish(member, n);
    zeb_subscriber_close(member);
}

/* Writes a stream to itself. Its pieces may be lost on the way, its end as well, and a read has no limit: so
 * only the first piece is read. */
void churn_stream()
{
    const std::string type = std::string("/storm/stream/") + ownName;
    zeb_subscriber *reader =
        zeb_subscriber_create_wtimeout(type.c_str(), "storm", nullptr, nullptr, nullptr, limit);
    if (reader == nullptr)
        return;
    zeb_notification *head = zeb_notification_createstream(type.c_str());
    zeb_publisher_publish(publisher, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    for (int i = 0; i < 5; i++)
        zeb_outstream_write(out, "piece", 5);
    zeb_outstream_close(&out);
    if (zeb_notification *n = zeb_subscriber_receive(reader, 1, limit)) {
        zeb_instream *in = zeb_notification_getInputStream(n);
        char buffer[16];
        zeb_instream_read(in, buffer, sizeof(buffer));
        zeb_instream_close(&in);
        zeb_subscriber_relinquish(reader, n);
    }
    zeb_subscriber_close(reader);
}

int32_t echo(zeb_rpcrequest *request, const void *data, int32_t length)
{
    return zeb_rpcrequest_sendresult(request, data, length);
}

void call(zeb_rpcclient *client, const char *name)
{
    zeb_laddrlist *servers = zeb_rpcclient_getservers_wtimeout(client, name, 1, limit);
    zeb_rpcinvocation *invocation =
        servers != nullptr ? zeb_rpcclient_invoke(client, "echo", servers, "hello", 5) : nullptr;
    zeb_rpcresponse *response =
        invocation != nullptr ? zeb_rpcinvocation_getresponse(invocation, 1, limit) : nullptr;
    zeb_rpcresponse_destroy(&response);
    zeb_rpcinvocation_destroy(&invocation);
    zeb_laddrlist_destroy(&servers);
}

void churn_call()
{
    zeb_rpcserver *server = zeb_rpcserver_create(ownName, "storm");
    zeb_rpcserver_addfunc(server, "echo", echo);
    zeb_rpcserver_launch(server);
    const char *names[] = {ownName};
    zeb_rpcclient *client = zeb_rpcclient_create(names, 1, "storm");
    if (client != nullptr)
        call(client, ownName);
    zeb_rpcclient_destroy(&client);
    zeb_rpcserver_destroy(&server);
}

void churn_on()
{
    while (!ending) {
        {
            const std::lock_guard hold(churning);
            if (wantsChurn) {
                churn_subscriber();
                churn_stream();
                churn_call();
                rounds++;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(churnPause));
    }
}

void churn(bool wanted)
{
    const std::lock_guard hold(churning);
    wantsChurn = wanted;
}

/* ---- Commands ---- */

void report()
{
    const std::lock_guard hold(receiving);
    std::string line = "report " + std::to_string(rounds);
    for (const auto &[name, s] : arrived) {
        line += " " + name;
        for (const uint64_t number : {s.last, s.count, s.back, s.gaps, s.damaged})
            line += ":" + std::to_string(number);
    }
    printf("%s\n", line.c_str());
    malloc_trim(0); /* so that it shows what is in use, and not what once was */
}

void save(const std::string &into)
{
    storms::records::save(into + "/taken");
    const std::lock_guard hold(receiving);
    FILE *file = fopen((into + "/arrived").c_str(), "w");
    for (const auto &[name, number] : kept)
        fprintf(file, "%s %llu\n", name.c_str(), static_cast<unsigned long long>(number));
    fclose(file);
}

std::string directory; /* for the records */

void obey()
{
    std::string word;
    while (std::cin >> word) {
        std::string argument;
        if (word == "every" && std::cin >> argument) {
            pause = atoi(argument.c_str());
            printf("every\n");
        } else if (word == "publish" && std::cin >> argument) {
            const uint64_t total = publish(strtoull(argument.c_str(), nullptr, 10));
            printf("published %llu\n", static_cast<unsigned long long>(total));
        } else if (word == "churn" && std::cin >> argument) {
            churn(argument == "1");
            printf("churn\n");
        } else if (word == "report") {
            report();
        } else if (word == "save" && std::cin >> directory) {
            printf("save\n");
        }
        fflush(stdout);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    ownName = argv[1];
    recording = argc > 3;
    if (recording)
        storms::records::keep();
    if (zeb_init() != 0)
        return 3;
    publisher = zeb_publisher_create("storm");
    std::thread receiver = subscribe(argv[2]);
    std::thread busy[] = {std::thread(publish_on), std::thread(churn_on)};
    printf("ready\n");
    fflush(stdout);
    obey();
    ending = true;
    for (std::thread &each : busy)
        each.join();
    zeb_subscriber_close(subscriber);
    if (receiver.joinable())
        receiver.join();
    zeb_subscriberlist_destroy(&list);
    zeb_publisher_close(publisher);
    zeb_shutdown();
    if (!directory.empty())
        save(directory);
    printf("done\n");
    return 0;
}
