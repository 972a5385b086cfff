/* What a measuring program needs of a messaging system. Each system is one source that implements these
 * functions with its own library, in the way its documentation shows; each becomes one program with
 * driver.cpp, which knows what to do with them and nothing of the system.
 *
 * One thread calls, one connection is open. Whatever fails ends the program with a message: a measurement
 * with failures in it is none. */
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace bench
{

inline constexpr size_t propertyCount = 4;

/* 24 octets; 20 each. All are literals, so that a NUL stands behind them. */
inline constexpr std::string_view eventType = "/bench/measure/of/events";
inline constexpr std::array<std::string_view, propertyCount> propertyNames = {
    "first-property-named", "second-property-name", "third-property-named", "fourth-property-name"};
inline constexpr std::array<std::string_view, propertyCount> propertyValues = {
    "value-of-property-01", "value-of-property-02", "value-of-property-03", "value-of-property-04"};

/* An event as its receiver found it, each property looked up by its name. */
struct event {
    std::string_view type;
    std::array<std::string_view, propertyCount> values;
    std::string_view body;
};

struct peer_options {
    std::string address; /* a port of 127.0.0.1, or what else the system calls an address */
    bool atOnce =
        false; /* every event on its way before the publish returns, where the system has a choice */
};

/* Name of the function, channel or subject that calls go to. */
inline constexpr std::string_view callName = "/bench/measure/of/callee";

void peer_open(const peer_options &options);
void peer_close();

/* Publishes the event above with BODY. */
void peer_publish(std::string_view body);

/* Returns when everything that was published has been handed to the kernel. */
void peer_flush();

/* Asks for events of each of TYPES; returns when the server knows of it. */
void peer_subscribe(const std::vector<std::string> &types);

/* Hands every event that arrives to TAKE, until that returns false. */
void peer_receive(bool (*take)(const event &e));

/* Answers calls with their body, for ever; says READY when it can be called. */
void peer_serve(void (*ready)());

/* Sends a call, and waits for the next response, which lives until the next function of these. Responses come
 * in the order of the calls. */
void peer_prepare_calls();
void peer_call(std::string_view body);
std::string_view peer_response();

} // namespace bench
