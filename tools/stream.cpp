/* zeb stream: octets from standard input to a stream, and from a stream to standard output. */
#include "input.h"
#include "member.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"
#include "watch.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace tool
{

static void show_octets(uint64_t octets, const char *done, double began)
{
    if (!progress_is_due())
        return;
    const double seconds = std::max(steady_clock() - began, 0.001);
    char text[96];
    std::snprintf(text, sizeof(text), "%.1f MB %s, %.1f MB/s", static_cast<double>(octets) / 1e6, done,
                  static_cast<double>(octets) / 1e6 / seconds);
    show_progress(text);
}

/* ---- Sending ---- */

struct outstream_deleter {
    void operator()(zeb_outstream *stream) const
    {
        zeb_outstream_close(&stream);
    }
};
using outstream_owner = std::unique_ptr<zeb_outstream, outstream_deleter>;

static outstream_owner begin_stream(zeb_publisher *publisher, const stream_options &options,
                                    const property_pairs &properties)
{
    zeb_notification *head = zeb_notification_createstream(options.type.c_str());
    if (head == nullptr || publisher == nullptr)
        return nullptr;
    for (const auto &[name, value] : properties)
        zeb_notification_setProperty(head, name.c_str(), value.c_str());
    zeb_publisher_publish(publisher, head);
    return outstream_owner(zeb_notification_getOutputStream(head));
}

static std::atomic<uint64_t> sent{0};

/* Counted first: once a piece is handed over the receiver may have it, and the daemon be gone, before this
 * thread goes on. */
static bool write_piece(zeb_outstream *stream, std::string_view piece)
{
    sent += piece.size();
    const auto length = static_cast<int32_t>(piece.size());
    const bool written = zeb_outstream_write(stream, piece.data(), length) == length;
    if (!written)
        sent -= piece.size();
    return written;
}

static bool write_pieces(zeb_outstream *stream, std::string_view octets, size_t piece)
{
    for (; !octets.empty(); octets.remove_prefix(std::min(piece, octets.size())))
        if (!write_piece(stream, octets.substr(0, piece)))
            return false;
    return true;
}

/* What the daemon had of the stream went with it, so nobody gets the whole. */
static void end_when_lost(double lostAt)
{
    if (lostAt == 0)
        return;
    say("the daemon is gone");
    quit_after(sent, "octets");
}

static exit_code send_input(int fd, zeb_outstream *stream, size_t piece)
{
    const double began = steady_clock();
    std::string octets;
    int error = 0;
    for (bool ended = false; error == 0 && !ended;) {
        octets.clear();
        if (!read_some(fd, octets, ended))
            error = errno;
        else if (!write_pieces(stream, octets, piece))
            error = ENOMEM;
        show_octets(sent, "sent", began);
    }
    clear_progress();
    if (error == 0) {
        say(counted(sent, "octet") + " sent");
        return exit_done;
    }
    const std::string why = interrupted() ? "" : std::string(": ") + std::strerror(error);
    return fail(exit_partly, "stopped after " + counted(sent, "octet") + why);
}

exit_code stream_send(const common_options &common, const stream_options &options)
{
    property_pairs properties;
    exit_code code = split_properties(options.properties, properties);
    if (code == exit_done && (options.type.empty() || !is_one_line(options.type)))
        code = fail(exit_usage, "the type must be one line");
    const int fd = options.file ? open(options.file->c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO;
    if (code == exit_done && fd < 0)
        code = fail(exit_usage, *options.file + ": " + std::strerror(errno));
    uint16_t port = 0;
    daemon_watch watch;
    if (code == exit_done)
        code = join(common, port);
    if (code == exit_done)
        code = watch.start(port, end_when_lost);
    if (code != exit_done)
        return code;
    watch_signals();
    publisher_owner publisher(zeb_publisher_create(options.component.c_str()));
    outstream_owner stream = begin_stream(publisher.get(), options, properties);
    code = stream == nullptr ? fail(exit_no_daemon, "the stream could not be made")
                             : send_input(fd, stream.get(), static_cast<size_t>(options.piece));
    stream.reset(); /* sends the end mark */
    publisher.reset();
    zeb_shutdown();
    return code;
}

/* ---- Receiving ---- */

static std::atomic<uint64_t> received{0};

/* When its first piece was handed on, in whole seconds since 1970 as the library tells it, and since when the
 * next octets are waited for, on the steady clock; infinite while that does not apply. */
static std::atomic<double> streamBegan{HUGE_VAL}, waitingSince{HUGE_VAL};

/* What was received before the daemon went is on its way to the reader for no longer than this. Seconds. */
static constexpr double arrivalTime = 1;

/* A stream that began in the second in which the daemon went is counted among those that went with it. */
static void end_when_cut(double lostAt)
{
    if (lostAt < streamBegan || steady_clock() - waitingSince < arrivalTime)
        return;
    say("the daemon is gone");
    quit_after(received, "octets");
}

/* Reads of a stream have no limit, so a signal ends the run from its handler. */
static void on_stop()
{
    quit_after(received, "octets");
}

/* A type is asked for as it is; anything else is a subscription. */
static std::string subscription_for(const std::string &text)
{
    const bool isType = text.starts_with('/') && text.find_first_of("*?\\") == std::string::npos;
    return isType ? "(\"@type=" + replaced(text, "\"", "\"\"") + "\")" : text;
}

static int32_t read_stream(zeb_instream *stream, std::string &buffer)
{
    waitingSince = steady_clock();
    const int32_t count = zeb_instream_read(stream, buffer.data(), static_cast<int32_t>(buffer.size()));
    waitingSince = HUGE_VAL;
    return count;
}

static uint64_t write_stream(zeb_instream *stream)
{
    const double began = steady_clock();
    std::string buffer(65536, '\0');
    int32_t count = 0;
    while ((count = read_stream(stream, buffer)) > 0) {
        const signals_held held;
        put(std::string_view(buffer).substr(0, static_cast<size_t>(count)));
        received += static_cast<unsigned>(count);
        show_octets(received, "received", began);
    }
    clear_progress();
    return received;
}

/* The next notification that begins a stream; others of the subscription are passed over. */
static zeb_instream *next_stream(zeb_subscriber *subscriber, bool verbose)
{
    while (zeb_notification *n = next_before(subscriber, HUGE_VAL)) {
        zeb_instream *stream = zeb_notification_getInputStream(n);
        if (stream != nullptr)
            streamBegan = static_cast<double>(zeb_notification_deliveryTime(n));
        if (stream != nullptr && verbose)
            say("stream " + escaped(text_of(zeb_notification_type(n))) + " from " +
                escaped(text_of(zeb_notification_generatingComponent(n))));
        zeb_subscriber_relinquish(subscriber, n);
        if (stream != nullptr)
            return stream;
    }
    return nullptr;
}

exit_code stream_receive(const common_options &common, const stream_options &options)
{
    uint16_t port = 0;
    daemon_watch watch;
    exit_code code = join(common, port);
    if (code == exit_done)
        code = watch.start(port, end_when_cut);
    if (code != exit_done)
        return code;
    watch_signals(on_stop);
    subscriber_owner subscriber;
    code = subscribe({subscription_for(options.type).c_str()}, options.component, subscriber);
    if (code != exit_done) {
        zeb_shutdown_nowait();
        return code;
    }
    if (common.verbose)
        say("subscribed");
    zeb_instream *stream = next_stream(subscriber.get(), common.verbose);
    code = stream == nullptr ? exit_partly : exit_done;
    if (stream != nullptr)
        say(counted(write_stream(stream), "octet") + " received");
    zeb_instream_close(&stream);
    subscriber.reset();
    zeb_shutdown_nowait();
    return code;
}

} // namespace tool
