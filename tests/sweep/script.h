/* What the daemon of the sweeps says, and call-backs that count. */
#pragma once

#include "rpc.h"

#include "obliging_daemon.h"
#include "zeb.h"

#include <atomic>
#include <string>

namespace sweep
{

using namespace zebtest;

/* An event that has everything an event can have. */
inline std::string full_event(const std::string &id)
{
    return rpc_event("/t", {"a: b", "c: d"}, "body",
                     server_address("srcAddr", "9") + server_address("dstAddr0", "1") +
                         server_address("dstAddr1", "2"),
                     id);
}

inline std::string stream_piece(const std::string &id, const std::string &body)
{
    return lines({"POST /event HTTP/1.1", "className: IncomingStreamingNotification", "SubscriberID: " + id,
                  "eventType: /s", "eventId: node1:911", "creationTime: 1", "deliveryTime: 2",
                  "affectedComponents: ", "affectedNodes: ", "generatingComponent: storage",
                  "generatingProcess: node1:9", "generatingNode: node1", "instanceName: west",
                  "LocalOnly: false", "numberOfProperties: 0", "streamKey: node1:91",
                  "Content-Length: " + std::to_string(body.size()), "AddrList-Length: 0", ""}) +
           body;
}

/* The daemon knows one server, called "srv", which answers everything. */
inline std::string with_one_server(const obliging_daemon::request &r)
{
    if (r.is("subscribe") && r.field("MbrDeltas") == "true")
        return membership("MembershipDeltaNotification", server_address("addAddr0", "7", "srv"),
                          std::stoi(r.field("SubscriberID")));
    if (r.is("event") && r.field("eventType") == "/ZEB/RPC/REQ")
        return rpc_event("/ZEB/RPC/RES", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: " + r.field("/ZEB/RPC/CID")},
                         "answer", server_address("srcAddr", "7", "srv"), r.field("SubscriberID"));
    return "";
}

inline const char *const SERVERS[] = {"srv"};

/* A call of the function "f" of a server whose subscriber is ID. */
inline std::string request_for(const std::string &id)
{
    return rpc_event("/ZEB/RPC/REQ", {"/ZEB/RPC/ARG: BYTE", "/ZEB/RPC/CID: f:1", "/ZEB/RPC/NAM: f"}, "arg",
                     server_address("srcAddr", "5"), id);
}

inline int32_t take_notification(zeb_notification *, void *count)
{
    (*static_cast<std::atomic<int> *>(count))++;
    return 0;
}

} // namespace sweep
