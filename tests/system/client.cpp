/* A client of the daemon for the tests: it does what lines on its standard input say, with the library as it
 * ships, and says on its standard output what happens. Fields of a line are separated by tabs; "-" stands for
 * a text that is absent. It ends, with everything sent, at the end of its input.
 *
 *   sub NAME SUBSCRIPTION INTEREST DELTAS [PROPERTY=VALUE ...]     close NAME
 *   pub TYPE BODY        burst TYPE COUNT       load TYPE MILLISECONDS      stream TYPE PIECE COUNT
 *   to NAME MEMBER TYPE BODY      reply NAME TYPE BODY      state NAME BODY      getstate NAME
 *   serve SERVER         stop SERVER            call SERVER FUNCTION ARGUMENT SERVERS
 *   many COUNT           poll COUNT TYPE
 *
 * Members are named by their property "name". */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>
#include <zeb.h>

namespace
{

using fields = std::vector<std::string>;

void say(const std::string &line)
{
    static std::mutex one;
    const std::lock_guard hold(one);
    printf("%s\n", line.c_str());
    fflush(stdout);
}

std::string text_of(const char *text)
{
    return text != nullptr ? text : "-";
}

const char *or_null(const std::string &text)
{
    return text != "-" ? text.c_str() : nullptr;
}

/* ---- Subscribers ---- */

struct watcher {
    std::string name;
    fields made; /* the line that made it, to make it again */
    zeb_subscriber *handle = nullptr;
    std::mutex lock;                              /* guards what follows */
    std::map<std::string, zeb_laddrlist *> known; /* by member name; each list holds one address */
    zeb_laddrlist *last = nullptr;                /* where the last event came from */
    std::string state = "-";
};

std::map<std::string, std::unique_ptr<watcher>> watchers;
zeb_publisher *publisher = nullptr;

std::string name_of(const zeb_logicaladdr *address)
{
    return text_of(zeb_logicaladdr_getProperty(address, "name"));
}

zeb_laddrlist *list_of(const zeb_logicaladdr *address)
{
    zeb_laddrlist *list = zeb_laddrlist_create();
    zeb_laddrlist_add(list, address);
    return list;
}

std::string names_of(const zeb_laddrlist *list)
{
    std::string names;
    for (int32_t i = 0; i < zeb_laddrlist_count(list); i++)
        names += (i > 0 ? "," : "") + name_of(zeb_laddrlist_get(list, i));
    return names;
}

void forget(watcher &w, const std::string &name)
{
    const auto at = w.known.find(name);
    if (at == w.known.end())
        return;
    zeb_laddrlist_destroy(&at->second);
    w.known.erase(at);
}

void learn(watcher &w, const zeb_laddrlist *list)
{
    const std::lock_guard hold(w.lock);
    for (int32_t i = 0; i < zeb_laddrlist_count(list); i++) {
        const zeb_logicaladdr *address = zeb_laddrlist_get(list, i);
        forget(w, name_of(address));
        w.known[name_of(address)] = list_of(address);
    }
}

std::string body_of(const zeb_notification *n)
{
    int32_t length = 0;
    const void *body = zeb_notification_body(n, &length);
    return length > 0 ? std::string(static_cast<const char *>(body), static_cast<size_t>(length)) : "";
}

/* Reads to the end and tells how much it was and a sum over all of it. */
void read_stream(const watcher &w, zeb_notification *n)
{
    zeb_instream *stream = zeb_notification_getInputStream(n);
    char buffer[8192];
    uint64_t octets = 0, sum = 0;
    int32_t count = 0;
    while ((count = zeb_instream_read(stream, buffer, sizeof(buffer))) > 0) {
        octets += static_cast<uint64_t>(count);
        for (int32_t i = 0; i < count; i++)
            sum = sum * 31 + static_cast<unsigned char>(buffer[i]);
    }
    zeb_instream_close(&stream);
    say(w.name + " stream " + zeb_notification_type(n) + " " + std::to_string(octets) + " " +
        std::to_string(sum));
}

void take_message(watcher &w, zeb_notification *n)
{
    const zeb_logicaladdr *from = zeb_notification_generatingAddress(n);
    if (from != nullptr) {
        const std::lock_guard hold(w.lock);
        zeb_laddrlist_destroy(&w.last);
        w.last = list_of(from);
    }
    const bool directed = zeb_laddrlist_count(zeb_notification_getDestinationAddrs(n)) > 0;
    say(w.name + (directed ? " directed " : " message ") + zeb_notification_type(n) + " " + body_of(n) +
        (from != nullptr ? " from " + name_of(from) : ""));
}

void answer_state(watcher &w)
{
    const std::lock_guard hold(w.lock);
    say(w.name + " stateget");
    if (w.state != "-")
        zeb_subscriber_returnState(w.handle, w.state.data(), static_cast<uint32_t>(w.state.size()));
}

int32_t take(zeb_notification *n, void *context)
{
    watcher &w = *static_cast<watcher *>(context);
    switch (zeb_notification_getClass(n)) {
    case ZEB_CLASS_MEMBERSHIPLIST:
        learn(w, zeb_notification_obtainMemberList(n));
        say(w.name + " list " + names_of(zeb_notification_obtainMemberList(n)));
        break;
    case ZEB_CLASS_MEMBERSHIPDELTA:
        learn(w, zeb_notification_getMembersAdded(n));
        say(w.name + " added [" + names_of(zeb_notification_getMembersAdded(n)) + "] removed [" +
            names_of(zeb_notification_getMembersRemoved(n)) + "]");
        break;
    case ZEB_CLASS_INCOMINGSTREAM:
        read_stream(w, n);
        break;
    case ZEB_CLASS_STATEGET:
        answer_state(w);
        break;
    case ZEB_CLASS_STATESET:
        say(w.name + " stateset " + body_of(n));
        break;
    case ZEB_CLASS_LEAVEGROUP:
        say(w.name + " leavegroup");
        break;
    default:
        take_message(w, n);
    }
    return 0;
}

zeb_proplist *properties_from(const fields &f, size_t first)
{
    zeb_proplist *list = zeb_proplist_create();
    for (size_t i = first; i < f.size(); i++) {
        const size_t at = f[i].find('=');
        zeb_proplist_put(list, f[i].substr(0, at).c_str(), f[i].substr(at + 1).c_str());
    }
    return list;
}

zeb_subscriber *create(const fields &f, char **why)
{
    zeb_proplist *properties = properties_from(f, 5);
    auto *make = f[4] == "true" ? zeb_subscriber_create_wdeltas : zeb_subscriber_create;
    zeb_subscriber *handle = make(or_null(f[2]), "system-test", or_null(f[3]), properties, why);
    zeb_proplist_destroy(&properties);
    return handle;
}

void subscribe(const fields &f)
{
    auto &w = watchers[f[1]];
    if (w == nullptr)
        w = std::make_unique<watcher>();
    w->name = f[1];
    char *why = nullptr;
    w->handle = create(f, &why);
    say(f[1] + (w->handle != nullptr ? " subscribed" : " refused " + text_of(why)));
    free(why);
    if (w->handle != nullptr)
        zeb_subscriber_registercallback(w->handle, take, w.get(), 0);
}

/* The record stays: a call-back may still be running. */
void unsubscribe(const fields &f)
{
    zeb_subscriber_close(watchers.at(f[1])->handle);
    say(f[1] + " closed");
}

/* ---- Publishing ---- */

zeb_notification *notification(const std::string &type, const std::string &body)
{
    return zeb_notification_create(type.c_str(), body.data(), static_cast<int32_t>(body.size()));
}

void publish(const fields &f)
{
    zeb_publisher_publish(publisher, notification(f[1], f[2]));
}

void burst(const fields &f)
{
    const int count = atoi(f[2].c_str());
    for (int i = 0; i < count; i++)
        zeb_publisher_publish(publisher, notification(f[1], std::to_string(i)));
    say("burst done");
}

/* Publishes numbers, without end, one every so many milliseconds. */
void load(const fields &f)
{
    std::thread([f] {
        for (uint64_t i = 0;; i++) {
            zeb_publisher_publish(publisher, notification(f[1], std::to_string(i)));
            std::this_thread::sleep_for(std::chrono::milliseconds(atoi(f[2].c_str())));
        }
    }).detach();
}

void send_to(watcher &w, zeb_laddrlist *list, const std::string &type, const std::string &body)
{
    zeb_notification *n = notification(type, body);
    zeb_notification_setDestinationAddrs(n, list);
    zeb_publisher_publish(zeb_subscriber_getPublisher(w.handle), n);
}

void direct(const fields &f)
{
    watcher &w = *watchers.at(f[1]);
    const std::lock_guard hold(w.lock);
    send_to(w, w.known.at(f[2]), f[3], f[4]);
}

void reply(const fields &f)
{
    watcher &w = *watchers.at(f[1]);
    const std::lock_guard hold(w.lock);
    send_to(w, w.last, f[2], f[3]);
}

void stream(const fields &f)
{
    zeb_notification *head = zeb_notification_createstream(f[1].c_str());
    zeb_publisher_publish(publisher, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    uint64_t octets = 0, sum = 0;
    for (int i = 0; i < atoi(f[3].c_str()); i++) {
        std::string piece(static_cast<size_t>(atoi(f[2].c_str())), static_cast<char>('a' + i % 26));
        piece += std::to_string(i);
        for (const char octet : piece)
            sum = sum * 31 + static_cast<unsigned char>(octet);
        octets += piece.size();
        zeb_outstream_write(out, piece.data(), static_cast<int32_t>(piece.size()));
    }
    zeb_outstream_close(&out);
    say("streamed " + std::to_string(octets) + " " + std::to_string(sum));
}

/* ---- State ---- */

void keep_state(const fields &f)
{
    watcher &w = *watchers.at(f[1]);
    const std::lock_guard hold(w.lock);
    w.state = f[2];
    say(f[1] + " keeps");
}

void ask_state(const fields &f)
{
    say(f[1] + " getstate " + std::to_string(zeb_subscriber_getState(watchers.at(f[1])->handle)));
}

/* ---- Remote calls ---- */

std::map<std::string, zeb_rpcserver *> servers;

/* "echo" gives its argument back after two notes on the way; "fail" an error; "hang" never answers. */
int32_t echo(zeb_rpcrequest *request, const void *data, int32_t length)
{
    zeb_rpcrequest_sendprogress(request, "half", 4);
    zeb_rpcrequest_sendprogress(request, "most", 4);
    return zeb_rpcrequest_sendresult(request, data, length);
}

int32_t fail(zeb_rpcrequest *request, const void *, int32_t)
{
    return zeb_rpcrequest_senderror(request, 42, "as told");
}

int32_t hang(zeb_rpcrequest *, const void *, int32_t)
{
    say("hanging");
    for (;;)
        std::this_thread::sleep_for(std::chrono::hours(1));
}

void serve(const fields &f)
{
    zeb_rpcserver *server = zeb_rpcserver_create(f[1].c_str(), "system-test");
    zeb_rpcserver_addfunc(server, "echo", echo);
    zeb_rpcserver_addfunc(server, "fail", fail);
    zeb_rpcserver_addfunc(server, "hang", hang);
    zeb_rpcserver_setcbmode(server, 1);
    say(zeb_rpcserver_launch(server) == 0 ? "serving" : "not serving");
    servers[f[1]] = server;
}

void stop_serving(const fields &f)
{
    zeb_rpcserver_destroy(&servers.at(f[1]));
    say("stopped");
}

void tell_response(zeb_rpcresponse *response)
{
    int32_t code = 0, length = 0;
    const char *data = static_cast<const char *>(zeb_rpcresponse_getdata(response, &length));
    const char *error = zeb_rpcresponse_geterror(response, &code);
    if (error != nullptr || code != -1)
        say("error " + std::to_string(code) + " " + text_of(error));
    else
        say((zeb_rpcresponse_isresult(response) != 0 ? "result " : "progress ") + text_of(data));
    zeb_rpcresponse_destroy(&response);
}

zeb_rpcclient *client_of(const std::string &server)
{
    static std::map<std::string, zeb_rpcclient *> clients;
    zeb_rpcclient *&client = clients[server];
    if (client == nullptr) {
        const char *name = server.c_str();
        client = zeb_rpcclient_create(&name, 1, "system-test");
    }
    return client;
}

/* Waits until so many servers are there, calls all of them and says what comes back. */
void call(const fields &f)
{
    zeb_rpcclient *client = client_of(f[1]);
    zeb_laddrlist *all = nullptr;
    while (zeb_laddrlist_count(all) < atoi(f[4].c_str())) {
        zeb_laddrlist_destroy(&all);
        all = zeb_rpcclient_getservers_wtimeout(client, f[1].c_str(), 1, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    zeb_rpcinvocation *invocation =
        zeb_rpcclient_invoke(client, f[2].c_str(), all, f[3].data(), static_cast<int32_t>(f[3].size()));
    say("called " + std::to_string(zeb_laddrlist_count(all)));
    while (zeb_rpcinvocation_isdone(invocation) == 0)
        if (zeb_rpcresponse *response = zeb_rpcinvocation_getresponse(invocation, 1, 1000))
            tell_response(response);
    say("call done");
    zeb_rpcinvocation_destroy(&invocation);
    zeb_laddrlist_destroy(&all);
}

/* ---- Many ---- */

/* Creates many members at once; waits until all are registered. */
void many(const fields &f)
{
    std::vector<zeb_subscriber *> all;
    for (int i = 0; i < atoi(f[1].c_str()); i++) {
        zeb_proplist *properties = zeb_proplist_create();
        zeb_proplist_put(properties, "name", std::to_string(i).c_str());
        all.push_back(zeb_subscriber_create_async(nullptr, "system-test", nullptr, properties));
        zeb_proplist_destroy(&properties);
    }
    for (zeb_subscriber *each : all)
        while (zeb_subscriber_status(each, nullptr) == ZEB_SUBSCRIPTION_PENDING)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    say("many done");
}

/* Waits on several subscribers at once, until each has got one event. */
void poll_many(const fields &f)
{
    zeb_subscriberlist *list = zeb_subscriberlist_create();
    const int count = atoi(f[1].c_str());
    for (int i = 0; i < count; i++) {
        zeb_subscriber *each = zeb_subscriber_create((f[2] + std::to_string(i)).c_str(), "system-test",
                                                     nullptr, nullptr, nullptr);
        zeb_subscriber_setName(each, std::to_string(i).c_str());
        zeb_subscriberlist_add(list, each);
    }
    say("polling");
    for (int i = 0; i < count;) {
        zeb_subscriber *ready = zeb_subscriber_multirecv(list, 1, 1000);
        zeb_notification *n = ready != nullptr ? zeb_subscriber_receive(ready, 0, 0) : nullptr;
        if (n == nullptr)
            continue;
        say("polled " + std::string(zeb_subscriber_getName(ready)) + " " + zeb_notification_type(n));
        zeb_subscriber_relinquish(ready, n);
        i++;
    }
    say("polled all");
}

const std::map<std::string, void (*)(const fields &)> verbs = {
    {"sub", subscribe},    {"close", unsubscribe},  {"pub", publish},    {"burst", burst},
    {"load", load},        {"stream", stream},      {"to", direct},      {"reply", reply},
    {"state", keep_state}, {"getstate", ask_state}, {"serve", serve},    {"stop", stop_serving},
    {"call", call},        {"many", many},          {"poll", poll_many},
};

fields split(const std::string &line)
{
    fields result;
    size_t begin = 0;
    for (size_t end = line.find('\t'); end != std::string::npos; end = line.find('\t', begin)) {
        result.push_back(line.substr(begin, end - begin));
        begin = end + 1;
    }
    result.push_back(line.substr(begin));
    return result;
}

} // namespace

int main()
{
    if (zeb_init() != 0)
        return 1;
    publisher = zeb_publisher_create("system-test");
    say(publisher != nullptr ? "ready" : "no connection");
    std::string line;
    while (std::getline(std::cin, line)) {
        const fields f = split(line);
        const auto verb = verbs.find(f[0]);
        if (verb == verbs.end())
            return 3;
        verb->second(f);
    }
    zeb_shutdown();
    fflush(stdout);
    _Exit(0); /* what call-backs may still look at stays where it is */
}
