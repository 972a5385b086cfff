/* What every conversation starts with: a clean environment, a home directory and a daemon that listens; and
 * the steps that most of them share. */
#pragma once

#include "background.h"
#include "environment.h"
#include "fake_daemon.h"
#include "interposed.h"
#include "stderr_capture.h"

#include "zeb.h"

#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <unistd.h>

namespace zebtest
{

struct free_text {
    void operator()(char *text) const
    {
        free(text);
    }
};

/* A text that the library gave to its caller. */
using owned_text = std::unique_ptr<char, free_text>;

/* "<null>" for null, so that both can be compared and shown. */
inline std::string text_or_null(const char *text)
{
    return text != nullptr ? text : "<null>";
}

inline std::string host_name()
{
    char name[513] = "";
    gethostname(name, sizeof(name) - 1);
    return name;
}

/* As the library writes it into what it publishes. */
inline std::string process_name()
{
    return host_name() + ":" + std::to_string(getpid());
}

/* An event of class MessageNotification for the subscribers IDS, without properties and addresses. */
inline std::string message(std::string_view ids, std::string_view type, std::string_view body = "")
{
    return lines({"POST /event HTTP/1.1", "className: MessageNotification",
                  "SubscriberID: " + std::string(ids), "eventType: " + std::string(type),
                  "eventId: node1:911", "creationTime: 1111", "deliveryTime: 2222", "affectedComponents: ",
                  "affectedNodes: ", "generatingComponent: storage", "generatingProcess: node1:9",
                  "generatingNode: node1", "instanceName: west", "LocalOnly: false", "numberOfProperties: 0",
                  "Content-Length: " + std::to_string(body.size()), "AddrList-Length: 0", ""}) +
           std::string(body);
}

inline std::string status_reply(uint32_t id, std::string_view result, std::string_view text = "")
{
    return lines({"POST /status HTTP/1.1", "Result: " + std::string(result),
                  "SubscriberID: " + std::to_string(id), "Message: " + std::string(text), ""});
}

inline std::string subscribe_request(uint32_t id, std::string_view subscription,
                                     std::string_view component = "c", std::string_view interest = "null")
{
    return lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: " + std::to_string(id),
                  "Subscription: " + std::string(subscription), "Component: " + std::string(component),
                  "MbrInterest: " + std::string(interest), "MbrDeltas: false", "numberOfProperties: 0", ""});
}

inline std::string unsubscribe_request(uint32_t id)
{
    return lines(
        {"POST /unsubscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: " + std::to_string(id), ""});
}

/* An event as the library writes it: no properties, no addresses. SERIAL is what its id has behind the
 * process. */
inline std::string published(std::string_view component, std::string_view type, std::string_view serial,
                             std::string_view body = "", int subscriberId = 0,
                             std::string_view instance = instanceName)
{
    return lines({"POST /event HTTP/1.1", "className: MessageNotification",
                  "SubscriberID: " + std::to_string(subscriberId), "eventType: " + std::string(type),
                  "eventId: " + process_name() + std::string(serial),
                  "affectedComponents: ", "affectedNodes: ", "generatingComponent: " + std::string(component),
                  "generatingProcess: " + process_name(), "generatingNode: " + host_name(),
                  "instanceName: " + std::string(instance), "LocalOnly: false", "numberOfProperties: 0",
                  "Content-Length: " + std::to_string(body.size()), "AddrList-Length: 0", ""}) +
           std::string(body);
}

/* Number of this process's threads with NAME; "" counts all. A thread that was joined may be counted for a
 * moment. */
int threads_named(std::string_view name);

/* Waits until there are COUNT of them. */
bool threads_become(std::string_view name, int count);

/* Number of open descriptors. */
int open_descriptors();

class conversation : public testing::Test
{
  protected:
    conversation()
    {
        interposed::shorten_sleeps(milliseconds{5});
        if (threadSanitizer) { /* which starts a thread of its own with the first one of the program */
            std::thread([] {}).join();
            interposed::forget_threads();
        }
        clean_environment();
        configure(home.path(), daemon.port());
    }

    /* Ends the runtime of a test that did not do so itself. */
    ~conversation() override
    {
        zeb_shutdown_nowait();
        interposed::reset();
    }

    /* Starts the runtime and shakes hands. */
    peer connected(place where = {__builtin_FILE(), __builtin_LINE()})
    {
        if (zeb_init() != 0)
            script_fails(where, "zeb_init does not return 0");
        return daemon.accept_connected(home.path(), where);
    }

    /* Creates the subscriber that gets ID, for component "c", and lets the daemon agree. */
    zeb_subscriber *subscribed(peer &p, uint32_t id, const char *subscription = "/t",
                               const char *interest = nullptr,
                               place where = {__builtin_FILE(), __builtin_LINE()})
    {
        background creation(
            [=] { return zeb_subscriber_create(subscription, "c", interest, nullptr, nullptr); });
        p.expect(subscribe_request(id, subscription, "c", text_of_interest(interest)), where);
        p.send(status_reply(id, "success"));
        zeb_subscriber *sub = creation.get(where);
        if (sub == nullptr)
            script_fails(where, "the subscriber was not created");
        return sub;
    }

    /* The type of the next notification, which is given back; "<null>" when none comes in time. */
    static std::string receive_type(zeb_subscriber *sub)
    {
        zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
        const std::string type = text_or_null(zeb_notification_type(n));
        if (n != nullptr)
            zeb_subscriber_relinquish(sub, n);
        return type;
    }

    /* Publishes a notification of TYPE for component "mark" and reads everything up to it: what stood before.
     */
    static std::string sent_before_mark(peer &p, place where = {__builtin_FILE(), __builtin_LINE()})
    {
        zeb_publisher *publisher = zeb_publisher_create("mark");
        zeb_publisher_publish(publisher, zeb_notification_create("/mark", nullptr, 0));
        zeb_publisher_close(publisher);
        std::string all;
        while (all.find("eventType: /mark\r\n") == std::string::npos)
            all += p.read_line(where) + "\r\n";
        p.read_head(where);
        return all.substr(0, all.rfind("POST /event HTTP/1.1\r\n"));
    }

    temporary_home home;
    fake_daemon daemon;

  private:
    static std::string_view text_of_interest(const char *interest)
    {
        return interest != nullptr ? interest : "null";
    }
};

} // namespace zebtest
