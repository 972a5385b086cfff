/* The daemon's end of one connection, played by the test line by line.
 *
 * Every step has a time limit. A step that does not go as written fails the test, showing both sides, and
 * ends it: what follows in the script would make no sense. */
#pragma once

#include "patience.h"

#include <initializer_list>
#include <string>
#include <string_view>

namespace zebtest
{

/* Where a step stands in the test. */
struct place {
    const char *file;
    int line;
};

/* Fails the test at WHERE and ends it. */
[[noreturn]] void script_fails(place where, const std::string &why);

/* BYTES with line ends, controls and bytes beyond ASCII made visible, one line each. */
std::string shown(std::string_view bytes);

/* Each of LINES with CR LF behind it. */
std::string lines(std::initializer_list<std::string_view> lines);

class peer
{
  public:
    explicit peer(int socket) : fd(socket) {}
    peer(peer &&other) noexcept;
    peer &operator=(peer &&other) noexcept;
    ~peer();

    /* ---- What the library sends ---- */

    void expect(std::string_view bytes, place where = {__builtin_FILE(), __builtin_LINE()});
    void expect_lines(std::initializer_list<std::string_view> expected,
                      place where = {__builtin_FILE(), __builtin_LINE()});

    /* A line without its CR LF. */
    std::string read_line(place where = {__builtin_FILE(), __builtin_LINE()});

    /* Everything up to and including the next empty line. */
    std::string read_head(place where = {__builtin_FILE(), __builtin_LINE()});

    std::string read_bytes(size_t count, place where = {__builtin_FILE(), __builtin_LINE()});

    /* The library closes the connection, having sent nothing more. */
    void expect_close(place where = {__builtin_FILE(), __builtin_LINE()});

    /* The library closes the connection or resets it, whatever it has sent before. */
    void expect_end(place where = {__builtin_FILE(), __builtin_LINE()});

    /* Nothing comes, and no end either, for DURATION, which is not stretched. Where a later message can show
     * the same, that is the better test. */
    void expect_silence(milliseconds duration, place where = {__builtin_FILE(), __builtin_LINE()});

    /* ---- What it is told ---- */

    void send(std::string_view bytes);
    void send_lines(std::initializer_list<std::string_view> sent);

    /* Sends BYTES in two pieces, or one byte at a time: the library has read each piece before the next is
     * sent. Needs the library's end of the connection to be in this process. */
    void send_split(std::string_view bytes, size_t at, place where = {__builtin_FILE(), __builtin_LINE()});
    void send_bytewise(std::string_view bytes, place where = {__builtin_FILE(), __builtin_LINE()});

    /* ---- How it ends ---- */

    void half_close(); /* the library reads the end; it may go on writing */
    void reset();
    void close();

    /* The library's descriptor of this connection, when it is one of this process; else -1. */
    int other_end() const;

    /* Bytes that the library has written and this end's buffer has not taken; under the same condition. */
    int unsent_by_library() const;

  private:
    enum class arrival { SOME, END, NOTHING };
    arrival more(milliseconds limit);
    void await_consumed(place where);
    [[noreturn]] void fail(place where, const std::string &expected, arrival last);

    int fd;
    std::string got; /* read and not yet consumed by the script */
};

} // namespace zebtest
