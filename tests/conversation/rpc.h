/* What conversations about remote calls share: requests and responses as the daemon brings them, and what
 * functions wait at. */
#pragma once

#include "addresses.h"
#include "conversation.h"

#include <condition_variable>
#include <mutex>

namespace zebtest
{

/* An event of class MessageNotification with PROPERTIES, which are whole lines, and ADDRESSES, each made by
 * address. */
inline std::string rpc_event(std::string_view type, const std::vector<std::string> &properties,
                             std::string_view body, const std::string &addresses, std::string_view id)
{
    const std::string list = addresses.empty() ? "" : block_signature() + addresses;
    std::string text =
        lines({"POST /event HTTP/1.1", "className: MessageNotification", "SubscriberID: " + std::string(id),
               "eventType: " + std::string(type), "eventId: node1:911", "creationTime: 1111",
               "deliveryTime: 2222", "affectedComponents: ", "affectedNodes: ", "generatingComponent: other",
               "generatingProcess: node1:9", "generatingNode: node1", "instanceName: west",
               "LocalOnly: false", "numberOfProperties: " + std::to_string(properties.size())});
    for (const std::string &property : properties)
        text += property + "\r\n";
    return text +
           lines({"Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           std::string(body) + list;
}

/* The address of the server that is called NAME and has the number ID; SEGMENT says what is told of it. */
inline std::string server_address(const std::string &segment, const std::string &id,
                                  const std::string &name = "a")
{
    return address(segment, {{"id", id}, {"key", "node1:" + id}, {"address", "ADDR" + id}},
                   {{"/ZEB/RPC/SVR", name}});
}

/* An event of one of the classes that have few lines: about members, or about a group's state. */
inline std::string membership(std::string_view cls, const std::string &addresses, int id = 1,
                              const std::string &body = "")
{
    const std::string list = block_signature() + addresses;
    return lines({"POST /event HTTP/1.1", "className: " + std::string(cls),
                  "SubscriberID: " + std::to_string(id), "eventType: /ZEB/SYSTEM/MEMBERSHIP", "eventId: e",
                  "creationTime: 1", "deliveryTime: 2", "Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           body + list;
}

/* A door that functions wait at until the test opens it. */
class door
{
  public:
    void pass()
    {
        std::unique_lock hold(lock);
        waiting++;
        changed.notify_all();
        changed.wait(hold, [&] { return open; });
    }
    void let_pass()
    {
        const std::lock_guard hold(lock);
        open = true;
        changed.notify_all();
    }
    /* COUNT have come so far, whether or not they wait still. */
    bool was_reached_by(int count)
    {
        std::unique_lock hold(lock);
        return changed.wait_for(hold, stretched(patience), [&] { return waiting >= count; });
    }

  private:
    std::mutex lock;
    std::condition_variable changed;
    int waiting = 0;
    bool open = false;
};

inline bool no_call_back_threads()
{
    return eventually(
        [] { return threads_named("zeb-dispatch") == 0 && threads_named("zeb-callback") == 0; });
}

} // namespace zebtest
