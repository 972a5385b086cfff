/* The connect handshake, what makes it fail, and how often it is tried. */
#include "conversation.h"

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace
{

using namespace zebtest;
using connecting = conversation;

std::string instance_name()
{
    char *name = nullptr;
    zeb_get_instancename(&name);
    return text_or_null(owned_text(name).get());
}

/* ---- What is sent ---- */

TEST_F(connecting, handshake_is_sent_byte_for_byte)
{
    ASSERT_EQ(zeb_init_wtambekhome("/opt/app"), 0);
    peer p = daemon.accept();
    p.expect("POST /connect HTTP/1.1\r\n"
             "Version: 4 \r\n"
             "FormFactor: abc\r\n"
             "SelfId: Pid=" +
             std::to_string(getpid()) + "; Home=/opt/app\r\n\r\n");
    p.expect_silence(milliseconds{50}); /* nothing before the answer */
}

TEST_F(connecting, form_factor_file_is_sent_as_it_is)
{
    home.write_formfactor("laptop\n");
    ASSERT_EQ(zeb_init(), 0);
    daemon.accept().expect(handshake(home.path(), "laptop\n"));
}

TEST_F(connecting, form_factor_file_with_any_bytes_and_beyond_the_buffer_is_sent_whole)
{
    std::string bytes;
    for (int i = 0; i < 5000; i++)
        bytes.push_back(static_cast<char>(i));
    home.write_formfactor(bytes);
    ASSERT_EQ(zeb_init(), 0);
    daemon.accept().expect(handshake(home.path(), bytes));
}

TEST_F(connecting, empty_form_factor_file_sends_nothing)
{
    home.write_formfactor("");
    ASSERT_EQ(zeb_init(), 0);
    daemon.accept().expect(handshake(home.path(), ""));
}

TEST_F(connecting, form_factor_that_is_a_directory_counts_as_missing)
{
    std::filesystem::create_directory(home.formfactor_path());
    ASSERT_EQ(zeb_init(), 0);
    daemon.accept().expect(handshake(home.path(), "abc"));
}

TEST_F(connecting, form_factor_that_is_a_fifo_sends_nothing_and_does_not_block)
{
    ASSERT_EQ(mkfifo(home.formfactor_path().c_str(), 0600), 0);
    ASSERT_EQ(zeb_init(), 0);
    daemon.accept().expect(handshake(home.path(), ""));
}

TEST_F(connecting, form_factor_is_read_at_every_connect)
{
    peer p = connected();
    home.write_formfactor("docked");
    p.close();
    daemon.accept().expect(handshake(home.path(), "docked"));
}

/* ---- What is answered ---- */

/* Has the daemon answer REPLY and end the connection for writing, and looks whether that was a success: then
 * the library stays until the end of its reading, so it is seen in the instance name being given out. */
TEST_F(connecting, result_is_success_only_as_written_on_the_third_line)
{
    interposed::shorten_sleeps(milliseconds{0});
    ASSERT_EQ(zeb_init(), 0);
    for (const char *reply : {
             "a\r\nb\r\nResult: SUCCESS\r\n\r\n",
             "a\r\nb\r\nresult: success\r\n\r\n",
             "a\r\nb\r\nResult:success\r\n\r\n",
             "a\r\nb\r\nResult:  success\r\n\r\n",
             "a\r\nb\r\nResult: success \r\n\r\n",
             "a\r\nb\r\nResult: \r\n\r\n",
             "a\r\nb\r\nResult: failure\r\n\r\n",
             "a\r\nResult: success\r\n\r\n",
             "a\r\nb\r\nc\r\nResult: success\r\n\r\n",
             "Result: success\r\nResult: success\r\n\r\n",
             "a\r\nb\r\nResult: failure\r\nResult: success\r\n\r\n",
             "\r\na\r\nb\r\nResult: success\r\n\r\n",
             "\r\n",
         }) {
        SCOPED_TRACE(reply);
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send(reply);
        p.expect_end();
    }
    for (const char *reply : {
             "a\r\nb\r\nResult: success\r\n\r\n",
             "a\nb\nResult: success\n\n",
             "a\r\nb\r\nResult: success\r\nResult: failure\r\n\r\n",
         }) {
        SCOPED_TRACE(reply);
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send(reply);
        EXPECT_EQ(sent_before_mark(p), "");
    }
}

TEST_F(connecting, capitals_in_the_result_fail_and_the_second_try_comes_at_once)
{
    ASSERT_EQ(zeb_init(), 0);
    {
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send("1\r\n2\r\nResult: SUCCESS\r\n\r\n");
        p.expect_close();
    }
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), "");
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
}

TEST_F(connecting, long_and_many_reply_lines_are_passed_over)
{
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept();
    p.expect(handshake(home.path()));
    std::string reply = std::string(10000, 'x') + "\r\n" + std::string(2048, 'y') + "\r\nResult: success\r\n";
    for (int i = 0; i < 1000; i++)
        reply += "line: " + std::to_string(i) + "\r\n";
    p.send(reply + "\r\n");
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(connecting, reply_may_come_one_byte_at_a_time)
{
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept();
    p.expect(handshake(home.path()));
    p.send_bytewise(handshakeReply);
    EXPECT_EQ(instance_name(), "east");
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(connecting, reply_split_anywhere_is_understood)
{
    for (size_t at = 1; at < handshakeReply.size(); at++) {
        ASSERT_EQ(zeb_init(), 0);
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send_split(handshakeReply, at);
        ASSERT_EQ(instance_name(), "east") << "split at " << at;
        zeb_shutdown();
        p.expect_close();
    }
}

TEST_F(connecting, reply_cut_anywhere_fails_and_is_tried_again)
{
    interposed::shorten_sleeps(milliseconds{0});
    ASSERT_EQ(zeb_init(), 0);
    for (size_t length = 0; length < handshakeReply.size(); length++) {
        SCOPED_TRACE(length);
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send(handshakeReply.substr(0, length));
        p.half_close();
        p.expect_close();
    }
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(connecting, first_message_may_come_together_with_the_reply)
{
    const stderr_capture messages;
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept();
    p.expect(handshake(home.path()));
    p.send(std::string(handshakeReply) + "POST /hello HTTP/1.1\r\n");
    EXPECT_TRUE(messages.becomes("UNKNOWN MESSAGE LINE RECEIVED ==> POST /hello HTTP/1.1\n"));
}

/* ---- The instance name ---- */

std::string reply_with(int line, const std::string &text, const std::string &result = "success")
{
    std::string reply;
    for (int i = 1; i <= 10; i++)
        reply += (i == 3 ? "Result: " + result : i == line ? text : "x") + "\r\n";
    return reply + "\r\n";
}

TEST_F(connecting, instance_name_counts_only_on_the_ninth_line_and_as_written)
{
    ASSERT_EQ(zeb_init(), 0);
    for (const auto &[line, text, expected] :
         std::initializer_list<std::tuple<int, const char *, const char *>>{
             {8, "instanceName: a", "<null>"},
             {10, "instanceName: b", "<null>"},
             {9, "InstanceName: c", "<null>"},
             {9, "instanceName:d", "<null>"},
             {9, "instanceName: e", "e"},
             {9, "other", "e"}, /* kept when it is not said again */
             {9, "instanceName: f: g ", "f: g "},
             {9, "instanceName: ", ""}}) {
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send(reply_with(line, text));
        EXPECT_EQ(sent_before_mark(p), "");
        EXPECT_EQ(instance_name(), expected) << "line " << line << ": " << text;
    }
}

TEST_F(connecting, instance_name_of_a_handshake_that_fails_is_kept)
{
    ASSERT_EQ(zeb_init(), 0);
    {
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send(reply_with(9, "instanceName: early", "failure"));
        p.expect_close();
    }
    peer p = daemon.accept();
    p.expect(handshake(home.path()));
    p.send(reply_with(9, "other"));
    EXPECT_EQ(instance_name(), "early");
}

/* ---- How often ---- */

std::vector<unsigned> sleeps_once_there_are(size_t count)
{
    eventually([&] { return interposed::sleeps().size() >= count; });
    std::vector<unsigned> sleeps = interposed::sleeps();
    sleeps.resize(std::min(count, sleeps.size()));
    return sleeps;
}

std::vector<unsigned> ones(size_t count, std::initializer_list<unsigned> others)
{
    std::vector<unsigned> all(count, 1);
    all.insert(all.end(), others);
    return all;
}

TEST_F(connecting, refused_passes_wait_31_times_one_second_then_two_three_four_and_five_for_good)
{
    interposed::shorten_sleeps(milliseconds{1});
    daemon.refuse();
    ASSERT_EQ(zeb_init(), 0);
    EXPECT_EQ(sleeps_once_there_are(100),
              ones(31, {2, 3, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
                        5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
                        5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5}));
}

TEST_F(connecting, failed_handshakes_wait_nothing_then_1_2_4_8_16_32_32_seconds)
{
    interposed::shorten_sleeps(milliseconds{0});
    ASSERT_EQ(zeb_init(), 0);
    const std::vector<unsigned> before[] = {{},
                                            {},
                                            {1},
                                            {1, 2},
                                            {1, 2, 4},
                                            {1, 2, 4, 8},
                                            {1, 2, 4, 8, 16},
                                            {1, 2, 4, 8, 16, 32},
                                            {1, 2, 4, 8, 16, 32, 32}};
    for (const std::vector<unsigned> &sleptSoFar : before) {
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        EXPECT_EQ(interposed::sleeps(), sleptSoFar);
        p.send("\r\n");
        p.expect_close();
    }
}

TEST_F(connecting, handshake_pauses_begin_anew_after_a_success)
{
    interposed::shorten_sleeps(milliseconds{0});
    ASSERT_EQ(zeb_init(), 0);
    for (int i = 0; i < 3; i++)
        daemon.accept().send("\r\n");
    daemon.accept_connected(home.path());
    for (int i = 0; i < 3; i++)
        daemon.accept().send("\r\n");
    peer last = daemon.accept();
    EXPECT_EQ(interposed::sleeps(), (std::vector<unsigned>{1, 2, 1, 2}));
}

TEST_F(connecting, a_failed_handshake_does_not_reset_the_pauses_between_passes)
{
    interposed::shorten_sleeps(milliseconds{1});
    interposed::fail_sockets(0, 32, EMFILE);
    ASSERT_EQ(zeb_init(), 0);
    {
        peer p = daemon.accept();
        interposed::fail_sockets(0, 3, EMFILE);
        p.send("\r\n");
        p.expect_end();
    }
    EXPECT_EQ(sleeps_once_there_are(35), ones(31, {2, 3, 4, 5}));
    daemon.accept_connected(home.path());
}

TEST_F(connecting, pauses_between_passes_begin_anew_after_a_success)
{
    interposed::shorten_sleeps(milliseconds{1});
    interposed::fail_sockets(0, 33, EMFILE);
    ASSERT_EQ(zeb_init(), 0);
    {
        peer p = daemon.accept_connected(home.path());
        EXPECT_EQ(sent_before_mark(p), "");
        interposed::fail_sockets(0, 2, EMFILE);
    }
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::sleeps(), ones(31, {2, 3, 1, 1}));
}

TEST_F(connecting, pauses_are_real_seconds)
{
    interposed::shorten_sleeps(milliseconds{1000});
    interposed::fail_sockets(0, 1, EMFILE);
    const stopwatch watch;
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept_connected(home.path());
    EXPECT_GE(watch.elapsed(), milliseconds{1000});
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{1});
}

TEST_F(connecting, pauses_are_the_same_though_the_clock_is_set)
{
    interposed::shorten_sleeps(milliseconds{1});
    const interposed::unsteady_clock unsteady;
    daemon.refuse();
    ASSERT_EQ(zeb_init(), 0);
    EXPECT_EQ(sleeps_once_there_are(37), ones(31, {2, 3, 4, 5, 5, 5}));
}

TEST_F(connecting, a_socket_that_cannot_be_had_ends_the_pass)
{
    interposed::fail_sockets(0, 1, EMFILE);
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{1});
}

TEST_F(connecting, an_interrupted_socket_call_is_repeated_without_a_pause)
{
    interposed::fail_sockets(0, 3, EINTR);
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
    EXPECT_GE(interposed::socket_calls(), 4);
}

TEST_F(connecting, a_daemon_that_starts_later_is_found)
{
    daemon.refuse();
    ASSERT_EQ(zeb_init(), 0);
    EXPECT_EQ(sleeps_once_there_are(3), ones(3, {}));
    daemon.listen_again();
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(connecting, a_daemon_whose_queue_is_full_is_waited_for_without_a_pause)
{
    daemon.stand_still();
    interposed::resolve_to({"127.0.0.1"});
    interposed::count_sockets();
    ASSERT_EQ(zeb_init(), 0);
    ASSERT_TRUE(eventually([&] { return daemon.is_called_in_vain(); }));
    daemon.accept();
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), "");
    EXPECT_EQ(interposed::socket_calls(), 1);
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
}

TEST_F(connecting, a_connection_that_is_closed_at_once_counts_as_a_failed_handshake)
{
    interposed::shorten_sleeps(milliseconds{0});
    ASSERT_EQ(zeb_init(), 0);
    for (int i = 0; i < 5; i++)
        daemon.accept();
    daemon.accept_connected(home.path());
    daemon.accept();
    EXPECT_EQ(interposed::sleeps(), (std::vector<unsigned>{1, 2, 4, 8}));
}

TEST_F(connecting, somebody_else_at_the_port_counts_as_a_failed_handshake)
{
    interposed::shorten_sleeps(milliseconds{0});
    ASSERT_EQ(zeb_init(), 0);
    const std::string_view others[] = {"220 mail ESMTP\r\n",
                                       "HTTP/1.1 400 Bad Request\r\nServer: x\r\n\r\n<html>\r\n",
                                       {"\x16\x03\x01\x00\x02\x02\x28", 7}};
    for (const std::string_view answer : others) {
        peer p = daemon.accept();
        p.send(answer);
        p.half_close();
        p.expect_end();
    }
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::sleeps(), (std::vector<unsigned>{1, 2}));
}

/* A number that nobody holds. */
uint16_t unused_port()
{
    return fake_daemon().port();
}

bool meets_itself(uint16_t port)
{
    interposed::bind_sockets_to(port);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool met = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return met;
}

TEST_F(connecting, a_connection_to_itself_counts_as_failed)
{
    const uint16_t other = unused_port();
    const uint16_t port = unused_port();
    ASSERT_TRUE(meets_itself(other)) << "the trick of this test does not work here";
    interposed::bind_sockets_to(port);
    ASSERT_EQ(zeb_init_with_port(port), 0);
    /* Had it been taken for the daemon, the handshake would have failed and been repeated without a pause. */
    EXPECT_EQ(sleeps_once_there_are(3), ones(3, {}));
}

/* ---- Where ---- */

TEST_F(connecting, localhost_is_looked_up_once_for_all_connections)
{
    ASSERT_EQ(zeb_init(), 0);
    for (int i = 0; i < 5; i++)
        daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::lookups(), 1);
    EXPECT_EQ(interposed::last_lookup(), "localhost:" + std::to_string(daemon.port()));
}

TEST_F(connecting, an_address_that_refuses_is_passed_over_without_a_pause)
{
    interposed::resolve_to({"127.0.0.2", "127.0.0.3", "127.0.0.1"});
    interposed::count_sockets();
    ASSERT_EQ(zeb_init(), 0);
    peer first = daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::socket_calls(), 3);
    first.close();
    peer p = daemon.accept_connected(home.path()); /* and each time anew, from the first */
    EXPECT_EQ(interposed::socket_calls(), 6);
    EXPECT_EQ(sent_before_mark(p), "");
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
}

TEST_F(connecting, a_pass_over_several_addresses_pauses_once)
{
    daemon.refuse();
    interposed::resolve_to({"127.0.0.2", "127.0.0.1", "127.0.0.3"});
    interposed::count_sockets();
    ASSERT_EQ(zeb_init(), 0);
    ASSERT_TRUE(eventually([] { return interposed::sleeps().size() >= 3; }));
    zeb_shutdown();
    const size_t passes = interposed::sleeps().size(); /* the shutdown may have ended the last one early */
    EXPECT_LE(static_cast<size_t>(interposed::socket_calls()), 3 * passes);
    EXPECT_GE(static_cast<size_t>(interposed::socket_calls()), 3 * (passes - 1));
}

TEST_F(connecting, a_socket_that_cannot_be_had_keeps_later_addresses_from_being_tried)
{
    interposed::resolve_to({"127.0.0.2", "127.0.0.1"});
    interposed::fail_sockets(0, 2, EAFNOSUPPORT);
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::sleeps(), (std::vector<unsigned>{1, 1}));
    EXPECT_EQ(interposed::socket_calls(), 4);
}

TEST_F(connecting, addresses_are_tried_in_the_order_of_the_resolver)
{
    if (!daemon.listen_only(AF_INET6))
        GTEST_SKIP() << "no IPv6 loopback here";
    daemon.listen_again();
    for (const auto &[addresses, family] : std::initializer_list<std::pair<std::vector<std::string>, int>>{
             {{"::1", "127.0.0.1"}, AF_INET6}, {{"127.0.0.1", "::1"}, AF_INET}}) {
        interposed::resolve_to(addresses);
        ASSERT_EQ(zeb_init(), 0);
        peer p = daemon.accept_connected(home.path());
        sockaddr_storage here{};
        socklen_t length = sizeof(here);
        ASSERT_EQ(getsockname(p.other_end(), reinterpret_cast<sockaddr *>(&here), &length), 0);
        EXPECT_EQ(here.ss_family, family);
        zeb_shutdown();
    }
}

TEST_F(connecting, daemon_on_either_family_alone_is_found)
{
    for (const int family : {AF_INET, AF_INET6}) {
        if (!daemon.listen_only(family))
            GTEST_SKIP() << "no IPv6 loopback here";
        interposed::resolve_to({"::1", "127.0.0.1"});
        ASSERT_EQ(zeb_init(), 0);
        peer p = daemon.accept_connected(home.path());
        EXPECT_EQ(sent_before_mark(p), "");
        zeb_shutdown();
        p.expect_close();
    }
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
}

/* ---- The socket ---- */

int option(int fd, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof(value);
    getsockopt(fd, level, name, &value, &length);
    return value;
}

TEST_F(connecting, socket_has_no_delay_keepalive_and_close_on_exec)
{
    peer p = connected();
    const int fd = p.other_end();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(option(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(connecting, socket_lingers_for_900_seconds)
{
    peer p = connected();
    struct linger lingering = {};
    socklen_t length = sizeof(lingering);
    ASSERT_EQ(getsockopt(p.other_end(), SOL_SOCKET, SO_LINGER, &lingering, &length), 0);
    EXPECT_EQ(lingering.l_onoff, 1);
    EXPECT_EQ(lingering.l_linger, 900);
}

TEST_F(connecting, library_has_one_descriptor_while_connected_and_none_after)
{
    const int before = open_descriptors();
    {
        peer p = connected();
        EXPECT_EQ(sent_before_mark(p), "");
        EXPECT_EQ(open_descriptors(), before + 2); /* its end and the daemon's */
        zeb_shutdown();
        p.expect_close();
    }
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
