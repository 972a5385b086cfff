/* What the daemon sends, in pieces and damaged: split at every position it comes to the same, cut at every
 * position or with any line changed the library goes on or connects anew. The default run takes every seventh
 * of the cases. */
#include "conversation.h"
#include "rpc.h"

#include <cstdlib>

namespace
{

using namespace zebtest;
using namespace std::string_literals;

struct message_on_record {
    std::string name;
    std::string bytes;
};

/* An event of class CLS with everything that one can have. */
std::string event(const std::string &cls, const std::string &body, const std::string &addresses,
                  const std::string &id = "1")
{
    std::string bytes = rpc_event("/t", {"name: value", "other: one"}, body, addresses, id);
    const std::string usual = "MessageNotification";
    bytes.replace(bytes.find(usual), usual.size(), cls);
    return bytes;
}

/* The fields that membership notifications and pieces of streams have. */
std::string piece(const std::string &key, const std::string &body)
{
    std::string bytes = event("IncomingStreamingNotification", body, "");
    return bytes.insert(bytes.find("Content-Length"), "streamKey: " + key + "\r\n");
}

std::vector<message_on_record> record()
{
    const std::string source = server_address("srcAddr", "9");
    const std::string destinations = server_address("dstAddr0", "1") + server_address("dstAddr1", "2");
    std::string binary;
    for (int i = 0; i < 256; i++)
        binary += static_cast<char>(i);
    const std::string block = block_signature() + segment("seg", 0) + element("elem", "text") +
                              segment("sub", 1) + element("other", "value");
    std::vector<message_on_record> all = {
        {"status success", status_reply(1, "success")},
        {"status success with text", status_reply(1, "success", "welcome")},
        {"status failure", status_reply(1, "failed", "no such language")},
        {"status for nobody", status_reply(99, "success")},
        {"status in capitals", status_reply(1, "SUCCESS")},
        {"status with more lines", lines({"POST /status HTTP/1.1", "Result: success", "Other: line",
                                          "nothing", "SubscriberID: 1", "Message: a", "Message: b", ""})},
        {"status with bare line feeds", "POST /status HTTP/1.1\nResult: success\nSubscriberID: 1\n\n"},
        {"unknown line", lines({"POST /weather HTTP/1.1"})},
        {"short line", lines({"POST"})},
        {"empty line", lines({""})},
        {"several lines", lines({"a", "", "POST /", "POST /even"})},
        {"plain event", message("1", "/t")},
        {"event with a body", message("1", "/t", "a body")},
        {"event with a binary body", message("1", "/t", binary)},
        {"event with a large body", message("1", "/t", std::string(5000, 'x'))},
        {"event with line ends in the body", message("1", "/t", "POST /event\r\n\r\n")},
        {"event with a block", message("1", "/t", block)},
        {"event with a damaged block", message("1", "/t", block.substr(0, block.size() - 4))},
        {"event without a type", message("1", "")},
        {"event with a long type", message("1", "/" + std::string(3000, 't'))},
        {"event for nobody", message("99", "/t", "body")},
        {"event for two", message("1;1", "/t", "body")},
        {"event for no number", message("x", "/t", "body")},
        {"two events", message("1", "/t1", "one") + message("1", "/t2", "two")},
        {"status between events",
         message("1", "/t1") + status_reply(1, "success") + message("1", "/t2", "two")},
        {"event with a source", event("MessageNotification", "", source)},
        {"event with destinations", event("MessageNotification", "body", destinations)},
        {"event with all addresses", event("MessageNotification", "body", source + destinations)},
        {"event with damaged addresses",
         event("MessageNotification", "body", source.substr(0, source.size() / 2))},
        {"stream", piece("a", "first") + piece("a", "second") + piece("a", "")},
        {"two streams", piece("a", "first") + piece("b", "other") + piece("a", "") + piece("b", "")},
        {"stream of two ends", piece("c", "") + piece("c", "")},
        {"state asked for", membership("StateGetNotification", source)},
        {"state", membership("StateSetNotification", source, 1, "the state")},
        {"outgoing stream", event("OutgoingStreamingNotification", "body", "")},
        {"member list", membership("MembershipListNotification",
                                   server_address("mbrAddr0", "3") + server_address("mbrAddr1", "4"))},
        {"empty member list", membership("MembershipListNotification", "")},
        {"members came", membership("MembershipDeltaNotification", server_address("addAddr0", "3"))},
        {"members came and went",
         membership("MembershipDeltaNotification",
                    server_address("addAddr0", "3") + server_address("delAddr0", "4"))},
    };
    return all;
}

/* Takes every seventh of the cases that it is asked about, or all. */
class thinning
{
  public:
    bool takes()
    {
        const char *wanted = getenv("ZEB_SWEEP_FULL");
        const bool full = wanted != nullptr && *wanted == '1';
        const bool taken = full || asked % 7 == 0;
        asked++;
        count += taken ? 1 : 0;
        return taken;
    }
    [[nodiscard]] int taken() const
    {
        return count;
    }

  private:
    int asked = 0;
    int count = 0;
};

/* ---- The library at the other end ---- */

class messages : public conversation
{
  protected:
    messages() : p(connected()), sub(subscribed(p, 1)) {}
    ~messages() override
    {
        printf("%d cases: %s\n", cases.taken(),
               testing::UnitTest::GetInstance()->current_test_info()->name());
        zeb_subscriber_close(sub);
        zeb_shutdown_nowait();
    }

    /* All that the subscriber has received up to a mark that is sent now. */
    std::vector<std::string> received_up_to_mark(bool readingStreams)
    {
        p.send(message("1", "/mark"));
        std::vector<std::string> all;
        for (;;) {
            zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
            if (n == nullptr)
                script_fails({__FILE__, __LINE__}, "the mark does not arrive");
            const bool mark = text_or_null(zeb_notification_type(n)) == "/mark";
            if (!mark)
                all.push_back(told(n, readingStreams));
            zeb_subscriber_relinquish(sub, n);
            if (mark)
                return all;
        }
    }

    /* Everything N says; with its stream, when that has an end. */
    static std::string told(zeb_notification *n, bool readingStreams)
    {
        const owned_text dump(zeb_notification_toString(n, 4));
        const std::string text = text_or_null(dump.get());
        std::string all = std::to_string(zeb_notification_getClass(n)) +
                          text.substr(text.find('\n')); /* the first line says where it lies */
        zeb_instream *in = zeb_notification_getInputStream(n);
        char bytes[64];
        for (int32_t count = 1; readingStreams && in != nullptr && count > 0;) {
            count = zeb_instream_read(in, bytes, sizeof(bytes));
            all.append(bytes, static_cast<size_t>(count));
        }
        zeb_instream_close(&in);
        return all;
    }

    /* Ends the connection and lets the library make another. */
    void renew_connection()
    {
        p.close();
        accept_again();
    }
    void accept_again()
    {
        p = daemon.accept_connected(home.path());
        p.expect(subscribe_request(1, "/t"));
        p.send(status_reply(1, "success"));
    }

    /* Sends BYTES, ends the connection, and sees that the next one works. */
    void survives(const std::string &what, const std::string &bytes)
    {
        SCOPED_TRACE(what);
        p.send(bytes);
        renew_connection();
        received_up_to_mark(false);
    }

    peer p;
    zeb_subscriber *sub;
    thinning cases;
    stderr_capture diagnostics;
};

bool is_beginning(const std::vector<std::string> &part, const std::vector<std::string> &whole)
{
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

/* ---- Pieces ---- */

TEST_F(messages, split_anywhere_come_to_the_same)
{
    for (const message_on_record &m : record()) {
        SCOPED_TRACE(m.name);
        p.send(m.bytes);
        const std::vector<std::string> whole = received_up_to_mark(true);
        for (size_t at = 1; at < m.bytes.size(); at++) {
            if (!cases.takes())
                continue;
            p.send_split(m.bytes, at);
            ASSERT_EQ(received_up_to_mark(true), whole) << m.name << " split at " << at;
        }
    }
}

TEST_F(messages, byte_by_byte_come_to_the_same)
{
    for (const message_on_record &m : record()) {
        if (m.bytes.size() > 1000 || !cases.takes())
            continue;
        p.send(m.bytes);
        const std::vector<std::string> whole = received_up_to_mark(true);
        p.send_bytewise(m.bytes);
        ASSERT_EQ(received_up_to_mark(true), whole) << m.name;
    }
}

TEST_F(messages, cut_anywhere_leave_a_clean_connection)
{
    for (const message_on_record &m : record()) {
        SCOPED_TRACE(m.name);
        p.send(m.bytes);
        const std::vector<std::string> whole = received_up_to_mark(false);
        renew_connection(); /* also for a stream that is without its end now */
        for (size_t at = 1; at < m.bytes.size(); at++) {
            if (!cases.takes())
                continue;
            p.send(m.bytes.substr(0, at));
            renew_connection();
            const std::vector<std::string> part = received_up_to_mark(false);
            ASSERT_TRUE(is_beginning(part, whole)) << m.name << " cut at " << at;
        }
    }
}

/* ---- Damage ---- */

std::vector<std::string> head_lines(const std::string &bytes)
{
    std::vector<std::string> all;
    size_t from = 0;
    for (size_t end; (end = bytes.find("\r\n", from)) != std::string::npos; from = end + 2) {
        all.push_back(bytes.substr(from, end - from));
        if (all.back().empty())
            break;
    }
    return all;
}

/* Each of LINES with its end, and BODY behind them. */
std::string joined(const std::vector<std::string> &all, const std::string &body)
{
    std::string bytes;
    for (const std::string &line : all)
        bytes += line + "\r\n";
    return bytes + body;
}

/* Every way to damage the lines of BYTES, as name and bytes. */
std::vector<message_on_record> damaged(const std::string &bytes)
{
    const std::vector<std::string> intact = head_lines(bytes);
    const std::string body = bytes.substr(joined(intact, "").size());
    std::vector<message_on_record> all;
    const auto add = [&](const std::string &how, size_t i, const std::vector<std::string> &changed) {
        all.push_back({how + " line " + std::to_string(i + 1), joined(changed, body)});
    };
    for (size_t i = 0; i < intact.size(); i++) {
        std::vector<std::string> changed = intact;
        changed.erase(changed.begin() + static_cast<ptrdiff_t>(i));
        add("without", i, changed);
        changed = intact;
        changed.insert(changed.begin() + static_cast<ptrdiff_t>(i), intact[i]);
        add("doubled", i, changed);
        if (i + 1 < intact.size()) {
            changed = intact;
            std::swap(changed[i], changed[i + 1]);
            add("swapped", i, changed);
        }
        const size_t colon = intact[i].find(": ");
        std::vector<std::string> instead = {"", ":", intact[i].substr(0, intact[i].size() / 2),
                                            intact[i].substr(0, colon == std::string::npos ? 1 : colon + 1)};
        if (colon != std::string::npos) {
            for (const char *number : {"-1", "0", "1", "2147483647", "2147483648", "4294967295", "4294967296",
                                       "99999999999999999999", "x"})
                instead.push_back(intact[i].substr(0, colon + 2) + number);
        }
        for (const std::string &line : instead) {
            changed = intact;
            changed[i] = line;
            add("\"" + line + "\" as", i, changed);
        }
    }
    return all;
}

/* BYTES with a NUL or 0xFF in the place of each byte of its lines. */
std::vector<message_on_record> with_odd_bytes(const std::string &bytes)
{
    const size_t size = joined(head_lines(bytes), "").size();
    std::vector<message_on_record> all;
    for (const char odd : {'\0', '\xFF'}) {
        for (size_t at = 0; at < size; at++) {
            std::string changed = bytes;
            changed[at] = odd;
            all.push_back({(odd == '\0' ? "NUL at " : "0xFF at ") + std::to_string(at), changed});
        }
    }
    return all;
}

/* Messages of every form that is read differently. */
std::vector<message_on_record> forms()
{
    return {{"status", status_reply(1, "success", "text")},
            {"event", event("MessageNotification", "body",
                            server_address("srcAddr", "9") + server_address("dstAddr0", "1"))},
            {"piece", piece("a", "first")},
            {"list", membership("MembershipListNotification", server_address("mbrAddr0", "3"))},
            {"delta", membership("MembershipDeltaNotification", server_address("addAddr0", "3"))}};
}

TEST_F(messages, with_damaged_lines_do_no_harm)
{
    for (const message_on_record &form : forms()) {
        for (const message_on_record &damage : damaged(form.bytes)) {
            if (cases.takes())
                survives(form.name + ": " + damage.name, damage.bytes);
        }
    }
}

TEST_F(messages, with_odd_bytes_do_no_harm)
{
    for (const message_on_record &form : forms()) {
        for (const message_on_record &damage : with_odd_bytes(form.bytes)) {
            if (cases.takes())
                survives(form.name + ": " + damage.name, damage.bytes);
        }
    }
}

/* ---- Handshake replies ---- */

class handshake_replies : public messages
{
  protected:
    /* Answers a new connection with SEND, which may end the attempt; the next is answered as it should be. */
    void survives_reply(const std::string &what, const std::function<void(peer &)> &send)
    {
        SCOPED_TRACE(what);
        p.close();
        p = daemon.accept();
        p.expect(handshake(home.path()));
        send(p);
        p.close();
        accept_again();
        received_up_to_mark(false);
    }
};

TEST_F(handshake_replies, split_anywhere_are_understood)
{
    for (size_t at = 1; at < handshakeReply.size(); at++) {
        if (!cases.takes())
            continue;
        p.close();
        p = daemon.accept();
        p.expect(handshake(home.path()));
        p.send_split(handshakeReply, at);
        p.expect(subscribe_request(1, "/t"));
        p.send(status_reply(1, "success"));
        received_up_to_mark(false);
    }
}

TEST_F(handshake_replies, cut_anywhere_lead_to_another_attempt)
{
    for (size_t at = 0; at < handshakeReply.size(); at++) {
        if (cases.takes())
            survives_reply("cut at " + std::to_string(at),
                           [&](peer &other) { other.send(handshakeReply.substr(0, at)); });
    }
}

TEST_F(handshake_replies, damaged_do_no_harm)
{
    std::vector<message_on_record> all = damaged(std::string(handshakeReply));
    for (const message_on_record &odd : with_odd_bytes(std::string(handshakeReply)))
        all.push_back(odd);
    for (const message_on_record &damage : all) {
        if (cases.takes())
            survives_reply(damage.name, [&](peer &other) { other.send(damage.bytes); });
    }
}

} // namespace
