/* A daemon that exists only as a script: it listens, and the test says what it answers.
 *
 *     zebtest::fake_daemon daemon;
 *     ASSERT_EQ(zeb_init_with_port(daemon.port()), 0);
 *     zebtest::peer peer = daemon.accept();
 *     peer.expect(zebtest::handshake(home.path()));
 *     peer.send(zebtest::handshakeReply);
 */
#pragma once

#include "peer.h"

#include <array>
#include <cstdint>

namespace zebtest
{

/* What a daemon answers to a handshake. Only the third and the ninth line are looked at. */
inline constexpr std::string_view handshakeReply = "HTTP/1.1 200 OK\r\n"
                                                   "Version: 4\r\n"
                                                   "Result: success\r\n"
                                                   "Daemon: scripted\r\n"
                                                   "Node: node1\r\n"
                                                   "Line: six\r\n"
                                                   "Line: seven\r\n"
                                                   "Line: eight\r\n"
                                                   "instanceName: east\r\n"
                                                   "\r\n";
inline constexpr std::string_view instanceName = "east";

/* The handshake of this process. */
std::string handshake(const std::string &home, std::string_view formfactor = "abc");

/* Listens on 127.0.0.1 and, where there is one, on ::1 under the same number, which the kernel chooses. The
 * number stays reserved throughout, so that nobody else listens there meanwhile and no client gets it as its
 * own. */
class fake_daemon
{
  public:
    fake_daemon();
    ~fake_daemon();
    fake_daemon(const fake_daemon &) = delete;
    fake_daemon &operator=(const fake_daemon &) = delete;

    uint16_t port() const
    {
        return number;
    }

    peer accept(place where = {__builtin_FILE(), __builtin_LINE()});

    /* The socket of somebody who has connected already, or -1. */
    int take_waiting();

    /* Where connections come in, for poll; -1 among them is to be ignored. */
    std::array<int, 2> listening_sockets() const
    {
        return {listening[0], listening[1]};
    }

    /* Accepts, checks the handshake for HOME and answers it with success. */
    peer accept_connected(const std::string &home, place where = {__builtin_FILE(), __builtin_LINE()});

    /* True when somebody connects within LIMIT; accept takes the connection. */
    bool is_called_within(milliseconds limit);

    /* Nobody listens: whoever connects is refused at once. */
    void refuse();
    void listen_again();

    /* Listens at one loopback address alone, FAMILY being AF_INET or AF_INET6. False when this host has none.
     */
    bool listen_only(int family);

    /* Listens at 127.0.0.1 alone, with a queue of connections that is full until accept has taken the first,
     * which nobody serves: whoever connects waits. */
    void stand_still();

    /* Somebody waits like that. */
    bool is_called_in_vain() const;

  private:
    static constexpr int families = 2;
    bool reserve();
    void give_up();

    uint16_t number = 0;
    int reserved[families] = {-1, -1};
    int listening[families] = {-1, -1};
};

} // namespace zebtest
