/* What clients send, octet by octet, as constants: never built by the code under test. */
#pragma once

#include <string>
#include <string_view>

namespace wire
{

inline constexpr std::string_view connect = "POST /connect HTTP/1.1\r\n"
                                            "Version: 4 \r\n"
                                            "FormFactor: abc\r\n"
                                            "SelfId: Pid=4242; Home=/opt/app\r\n"
                                            "\r\n";

inline constexpr std::string_view subscribeEverything = "POST /subscribe HTTP/1.1\r\n"
                                                        "Content-Length: 0\r\n"
                                                        "SubscriberID: 1\r\n"
                                                        "Subscription: \r\n"
                                                        "Component: watcher\r\n"
                                                        "MbrInterest: null\r\n"
                                                        "MbrDeltas: false\r\n"
                                                        "numberOfProperties: 0\r\n"
                                                        "\r\n";

inline constexpr std::string_view subscribeWithProperties = "POST /subscribe HTTP/1.1\r\n"
                                                            "Content-Length: 0\r\n"
                                                            "SubscriberID: 7\r\n"
                                                            "Subscription: (\"@type=/a\")&(\"k: v=1\")\r\n"
                                                            "Component: \r\n"
                                                            "MbrInterest: (\"/ZEB/RPC/SVR=a\")\r\n"
                                                            "MbrDeltas: true\r\n"
                                                            "numberOfProperties: 3\r\n"
                                                            "/ZEB/RPC/SVR: a\r\n"
                                                            "empty: \r\n"
                                                            "with:colon: x: y\r\n"
                                                            "\r\n";

inline constexpr std::string_view unsubscribe = "POST /unsubscribe HTTP/1.1\r\n"
                                                "Content-Length: 0\r\n"
                                                "SubscriberID: 1\r\n"
                                                "\r\n";

inline constexpr std::string_view messageEvent = "POST /event HTTP/1.1\r\n"
                                                 "className: MessageNotification\r\n"
                                                 "SubscriberID: 0\r\n"
                                                 "eventType: /app/disk/full\r\n"
                                                 "eventId: node1:911\r\n"
                                                 "affectedComponents: db\r\n"
                                                 "affectedNodes: n1 n2\r\n"
                                                 "generatingComponent: storage\r\n"
                                                 "generatingProcess: node1:9\r\n"
                                                 "generatingNode: node1\r\n"
                                                 "instanceName: east\r\n"
                                                 "LocalOnly: true\r\n"
                                                 "numberOfProperties: 2\r\n"
                                                 "sev: 3\r\n"
                                                 "note: \r\n"
                                                 "Content-Length: 5\r\n"
                                                 "AddrList-Length: 0\r\n"
                                                 "\r\n"
                                                 "he\r\nl";

/* The same event as subscriber 1 gets it at times 1111 and 2222. */
inline constexpr std::string_view messageEventDelivered = "POST /event HTTP/1.1\r\n"
                                                          "className: MessageNotification\r\n"
                                                          "SubscriberID: 1\r\n"
                                                          "eventType: /app/disk/full\r\n"
                                                          "eventId: node1:911\r\n"
                                                          "creationTime: 1111\r\n"
                                                          "deliveryTime: 2222\r\n"
                                                          "affectedComponents: db\r\n"
                                                          "affectedNodes: n1 n2\r\n"
                                                          "generatingComponent: storage\r\n"
                                                          "generatingProcess: node1:9\r\n"
                                                          "generatingNode: node1\r\n"
                                                          "instanceName: east\r\n"
                                                          "LocalOnly: true\r\n"
                                                          "numberOfProperties: 2\r\n"
                                                          "sev: 3\r\n"
                                                          "note: \r\n"
                                                          "Content-Length: 5\r\n"
                                                          "AddrList-Length: 0\r\n"
                                                          "\r\n"
                                                          "he\r\nl";

inline constexpr std::string_view bareEvent = "POST /event HTTP/1.1\r\n"
                                              "className: MessageNotification\r\n"
                                              "SubscriberID: 0\r\n"
                                              "eventType: \r\n"
                                              "eventId: \r\n"
                                              "affectedComponents: \r\n"
                                              "affectedNodes: \r\n"
                                              "generatingComponent: \r\n"
                                              "generatingProcess: \r\n"
                                              "generatingNode: \r\n"
                                              "instanceName: \r\n"
                                              "LocalOnly: false\r\n"
                                              "numberOfProperties: 0\r\n"
                                              "Content-Length: 0\r\n"
                                              "AddrList-Length: 0\r\n"
                                              "\r\n";

inline constexpr std::string_view streamPiece = "POST /event HTTP/1.1\r\n"
                                                "className: IncomingStreamingNotification\r\n"
                                                "SubscriberID: 0\r\n"
                                                "eventType: /log\r\n"
                                                "eventId: node1:912\r\n"
                                                "affectedComponents: \r\n"
                                                "affectedNodes: \r\n"
                                                "generatingComponent: logger\r\n"
                                                "generatingProcess: node1:9\r\n"
                                                "generatingNode: node1\r\n"
                                                "instanceName: east\r\n"
                                                "LocalOnly: false\r\n"
                                                "numberOfProperties: 0\r\n"
                                                "streamKey: node1:911\r\n"
                                                "Content-Length: 3\r\n"
                                                "AddrList-Length: 0\r\n"
                                                "\r\n"
                                                "abc";

/* A state reply: no origin, a body of two octets and an address list of four. */
inline constexpr std::string_view stateEvent = "POST /event HTTP/1.1\r\n"
                                               "className: StateSetNotification\r\n"
                                               "SubscriberID: 3\r\n"
                                               "eventType: /ZEB/SYSTEM/STATESET\r\n"
                                               "eventId: node1:913\r\n"
                                               "Content-Length: 2\r\n"
                                               "AddrList-Length: 4\r\n"
                                               "\r\n"
                                               "okADDR";

/* TEXT with the first OLD replaced by FRESH; the test is wrong when there is none. */
inline std::string with(std::string_view text, std::string_view old, std::string_view fresh)
{
    std::string result(text);
    const size_t at = result.find(old);
    if (at == std::string::npos)
        return "NOTHING TO REPLACE";
    return result.replace(at, old.size(), fresh);
}

} // namespace wire
