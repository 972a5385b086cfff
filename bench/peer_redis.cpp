/* Redis by hiredis: PUBLISH to a channel, with a row of commands under way or, at once, one after the other.
 * There are no properties, so they stand in the message; there are no calls. */
#include "common.h"

#include <hiredis/hiredis.h>

namespace bench
{

static redisContext *connection = nullptr;
static size_t rowLength = 0;
static size_t underWay = 0;
static std::string payload;

static redisReply *reply()
{
    void *got = nullptr;
    if (redisGetReply(connection, &got) != REDIS_OK)
        fail(std::string("redis: ") + connection->errstr);
    auto *answer = static_cast<redisReply *>(got);
    if (answer->type == REDIS_REPLY_ERROR)
        fail(std::string("redis: ") + answer->str);
    return answer;
}

void peer_open(const peer_options &options)
{
    connection = redisConnect("127.0.0.1", port_of(options.address));
    require(connection != nullptr && connection->err == 0, "redisConnect");
    rowLength = options.atOnce ? 1 : 64;
}

void peer_close()
{
    redisFree(connection);
}

void peer_flush()
{
    for (; underWay > 0; underWay--)
        freeReplyObject(reply());
}

void peer_publish(std::string_view body)
{
    text_encode(payload, body);
    const char *words[] = {"PUBLISH", eventType.data(), payload.data()};
    const size_t lengths[] = {7, eventType.size(), payload.size()};
    require(redisAppendCommandArgv(connection, 3, words, lengths) == REDIS_OK, "redisAppendCommandArgv");
    if (++underWay == rowLength)
        peer_flush();
}

void peer_subscribe(const std::vector<std::string> &types)
{
    for (const std::string &type : types) {
        redisAppendCommand(connection, "SUBSCRIBE %b", type.data(), type.size());
        freeReplyObject(reply());
    }
}

static std::string_view element(const redisReply *message, size_t index)
{
    const redisReply *part = message->element[index];
    return {part->str, static_cast<size_t>(part->len)};
}

void peer_receive(bool (*take)(const event &e))
{
    bool more = true;
    while (more) {
        redisReply *message = reply();
        require(message->type == REDIS_REPLY_ARRAY && message->elements == 3, "the message");
        more = take(text_decode(element(message, 1), element(message, 2)));
        freeReplyObject(message);
    }
}

void peer_serve(void (*)())
{
    fail("redis has no calls");
}

void peer_prepare_calls()
{
    fail("redis has no calls");
}

void peer_call(std::string_view)
{
    fail("redis has no calls");
}

std::string_view peer_response()
{
    fail("redis has no calls");
}

} // namespace bench
