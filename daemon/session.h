/* One client's conversation, without its socket: bytes go in, requests are carried out on the engine, replies
 * and events leave through the engine's outlet. The owner of a session also owns its connection number; when
 * a session says that it is over, the owner ends the connection and tells the engine. One thread. */
#pragma once

#include "engine.h"
#include "message.h"
#include "outgoing.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zebd
{

/* Sees every message of one session before it is carried out; for tracing. Null while nobody looks. */
struct message_tap {
    void *context = nullptr;
    void (*taken)(void *context, connection_id from, const message &what) = nullptr;
};

struct session {
    connection_id id = 0;
    message_reader reader;
    std::string formFactor; /* as the client sent them at the connect; known from then on */
    std::string selfId;
    std::string pid;     /* taken out of the self id, empty when it has none */
    uint64_t events = 0; /* that it has published */
    /* Subscribers of late whose subscription has to be tried for every event; taken out by who logs them. */
    std::vector<int32_t> unindexed;
    message_tap tap;
};

/* Takes bytes in and does what they ask. Returns false when the conversation is over; WHY then is one line.
 */
bool session_take(session &session, engine &engine, std::string_view bytes, std::string &why);

} // namespace zebd
