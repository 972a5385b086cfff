#include "metrics.h"

namespace zebd
{

/* ---- Counters ---- */

template <uint64_t server_counters::*Member>
static uint64_t of_server(const daemon_report &report)
{
    return report.server.*Member;
}

template <uint64_t engine_counters::*Member>
static uint64_t of_engine(const daemon_report &report)
{
    return report.engine.*Member;
}

static uint64_t suppressed_lines(const daemon_report &report)
{
    return report.logSuppressed;
}

static uint64_t lost_lines(const daemon_report &report)
{
    return report.logLost;
}

static uint64_t membership_notices(const daemon_report &report)
{
    return report.notices;
}

static constexpr std::string_view droppedHelp = "Events dropped from the queues of slow clients.";
static constexpr std::string_view endedHelp = "Clients that were ended.";
static constexpr std::string_view readHelp = "Configurations read after the start.";

static constexpr counter_description counters[] = {
    {"eventsIn", "zebd_events_in_total", "", "Events taken from clients.",
     of_engine<&engine_counters::taken>},
    {"eventsRouted", "zebd_events_routed_total", "", "Copies of events handed to the queues of clients.",
     of_engine<&engine_counters::delivered>},
    {"eventsOut", "zebd_events_out_total", "", "Copies of events handed to sockets.",
     of_server<&server_counters::eventsOut>},
    {"droppedSoft", "zebd_events_dropped_total", "limit=\"soft\"", droppedHelp,
     of_server<&server_counters::droppedSoft>},
    {"droppedHard", "zebd_events_dropped_total", "limit=\"hard\"", droppedHelp,
     of_server<&server_counters::droppedHard>},
    {"droppedTotal", "zebd_events_dropped_total", "limit=\"total\"", droppedHelp,
     of_server<&server_counters::droppedTotal>},
    {"eventsNotTaken", "zebd_events_not_taken_total", "",
     "Copies of events that a client's queue did not take.", of_engine<&engine_counters::dropped>},
    {"unroutable", "zebd_events_unroutable_total", "",
     "Events without destination, of a class that always has one.", of_engine<&engine_counters::unroutable>},
    {"addressGone", "zebd_addresses_gone_total", "", "Destinations of directed events that were not there.",
     of_engine<&engine_counters::addressGone>},
    {"streamsRefused", "zebd_stream_pieces_refused_total", "",
     "Pieces of streams for which there was no room when they began.",
     of_engine<&engine_counters::streamsRefused>},
    {"subscribersRefused", "zebd_subscribers_refused_total", "", "Subscribe messages refused.",
     of_engine<&engine_counters::subscribersRefused>},
    {"membershipNotices", "zebd_membership_notices_total", "", "Lists and changes of members made out.",
     membership_notices},
    {"clientsAccepted", "zebd_clients_accepted_total", "", "Connections accepted.",
     of_server<&server_counters::accepted>},
    {"clientsRefused", "zebd_clients_refused_total", "", "Connections ended for being too many.",
     of_server<&server_counters::refused>},
    {"endedProtocol", "zebd_clients_ended_total", "reason=\"protocol\"", endedHelp,
     of_server<&server_counters::endedProtocol>},
    {"endedQueue", "zebd_clients_ended_total", "reason=\"queue\"", endedHelp,
     of_server<&server_counters::endedQueue>},
    {"endedUnfinished", "zebd_clients_ended_total", "reason=\"unfinished\"", endedHelp,
     of_server<&server_counters::endedUnfinished>},
    {"endedTime", "zebd_clients_ended_total", "reason=\"time\"", endedHelp,
     of_server<&server_counters::endedTime>},
    {"endedSocket", "zebd_clients_ended_total", "reason=\"socket\"", endedHelp,
     of_server<&server_counters::endedSocket>},
    {"acceptFailures", "zebd_accept_failures_total", "", "Pauses of accepting for want of descriptors.",
     of_server<&server_counters::acceptFailures>},
    {"bytesIn", "zebd_received_bytes_total", "", "Octets read from clients.",
     of_server<&server_counters::bytesIn>},
    {"bytesOut", "zebd_sent_bytes_total", "", "Octets handed to sockets.",
     of_server<&server_counters::bytesOut>},
    {"configurationsRead", "zebd_configurations_total", "result=\"taken\"", readHelp,
     of_server<&server_counters::configurationsRead>},
    {"configurationsRefused", "zebd_configurations_total", "result=\"refused\"", readHelp,
     of_server<&server_counters::configurationsRefused>},
    {"adminRequests", "zebd_admin_requests_total", "", "Requests on the administration socket.",
     of_server<&server_counters::adminRequests>},
    {"logSuppressed", "zebd_log_lines_suppressed_total", "", "Lines kept out of the log by its rate.",
     suppressed_lines},
    {"logLost", "zebd_log_lines_lost_total", "", "Lines that standard error did not take at once.",
     lost_lines},
};

std::span<const counter_description> counter_descriptions()
{
    return counters;
}

/* ---- Text ---- */

static void add_head(std::string &text, std::string_view name, std::string_view help, std::string_view type)
{
    text.append("# HELP ").append(name).append(" ").append(help).append("\n");
    text.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

static void add_sample(std::string &text, std::string_view name, std::string_view label,
                       const std::string &value)
{
    text += name;
    if (!label.empty())
        text.append("{").append(label).append("}");
    text.append(" ").append(value).append("\n");
}

static void add_gauge(std::string &text, std::string_view name, std::string_view help, size_t value)
{
    add_head(text, name, help, "gauge");
    add_sample(text, name, "", std::to_string(value));
}

/* NAME="TEXT" with what would end the text put behind a backslash. */
static std::string label_of(std::string_view name, std::string_view text)
{
    std::string label = std::string(name) + "=\"";
    for (const char c : text) {
        if (c == '\\' || c == '"')
            label += '\\';
        label += c;
    }
    return label + '"';
}

std::string metrics_text(const daemon_report &report)
{
    std::string text;
    add_head(text, "zebd_info", "Which daemon this is.", "gauge");
    add_sample(text, "zebd_info",
               label_of("version", report.identity.version) + "," + label_of("node", report.identity.node) +
                   "," + label_of("instance", report.identity.instance),
               "1");
    add_gauge(text, "zebd_uptime_seconds", "Time since the start.",
              static_cast<size_t>(report.uptimeSeconds));
    add_gauge(text, "zebd_clients", "Clients connected.", report.clients);
    add_gauge(text, "zebd_subscribers", "Subscribers registered.", report.subscribers);
    add_gauge(text, "zebd_unindexed_clauses", "Parts of subscriptions that are tried for every event.",
              report.unindexed);
    add_gauge(text, "zebd_queued_bytes", "Memory kept by what waits for clients.", report.queuedBytes);
    add_gauge(text, "zebd_subscriber_bytes",
              "Memory kept for subscribers, what they subscribe to, and streams.", report.subscriberBytes);
    add_gauge(text, "zebd_unfinished_bytes", "Memory kept by messages that have not come completely.",
              report.unfinishedBytes);
    add_gauge(text, "zebd_memory_bytes", "Resident memory.", report.memoryBytes);
    std::string_view metric;
    for (const counter_description &each : counters) {
        if (each.metric != metric)
            add_head(text, each.metric, each.help, "counter");
        metric = each.metric;
        add_sample(text, metric, each.label, std::to_string(each.value(report)));
    }
    return text;
}

} // namespace zebd
