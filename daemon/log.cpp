#include "log.h"

#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <poll.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <time.h>
#include <unistd.h>

namespace zebd
{

static uint32_t allowedPerSecond = 20;
static std::array<log_rate, logKinds> rates;
static uint64_t suppressedInAll = 0;
static uint64_t lostInAll = 0;
static bool waits = true; /* for whoever reads standard error */

/* The descriptor stays as it was given, since it may be shared with other processes. So it is asked first:
 * one that has room takes a line of up to PIPE_BUF octets whole. */
static bool write_line(std::string_view line)
{
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    return poll(&standardError, 1, waits ? -1 : 0) == 1 &&
           write(STDERR_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

struct line_sink : spdlog::sinks::base_sink<spdlog::details::null_mutex> {
    uint64_t lost = 0; /* since the last line that was written */

    bool tell_lost()
    {
        return lost == 0 || write_line("<4>" + std::to_string(lost) +
                                       " lines are missing here: nobody took them from standard error\n");
    }

    void sink_it_(const spdlog::details::log_msg &message) override
    {
        spdlog::memory_buf_t text;
        formatter_->format(message, text);
        std::string line(text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        line.back() = '\n';
        const bool told = tell_lost();
        if (told)
            lost = 0;
        if (told && write_line(line))
            return;
        lost++;
        lostInAll++;
    }

    void flush_() override {}
};

struct priority_flag : spdlog::custom_flag_formatter {
    void format(const spdlog::details::log_msg &line, const std::tm &, spdlog::memory_buf_t &out) override
    {
        static constexpr std::string_view marks[] = {"<7>", "<7>", "<6>", "<4>", "<3>", "<2>", "<2>"};
        const std::string_view mark = marks[static_cast<size_t>(line.level)];
        out.append(mark.data(), mark.data() + mark.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override
    {
        return std::make_unique<priority_flag>();
    }
};

void log_start()
{
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<priority_flag>('*').set_pattern("%*%v");
    auto logger = std::make_shared<spdlog::logger>("zebd", std::make_shared<line_sink>());
    logger->set_formatter(std::move(formatter));
    spdlog::set_default_logger(std::move(logger));
}

void log_set(const std::string &level, uint32_t linesPerSecond)
{
    spdlog::set_level(spdlog::level::from_str(level));
    allowedPerSecond = linesPerSecond;
}

void log_stop_waiting()
{
    waits = false;
}

bool log_passes(log_kind kind, std::string &ending)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t suppressed = 0;
    log_rate &rate = rates[static_cast<size_t>(kind)];
    const int64_t milliseconds = static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    if (!log_rate_pass(rate, milliseconds, allowedPerSecond, suppressed)) {
        suppressedInAll++;
        return false;
    }
    if (suppressed > 0)
        ending = " (and " + std::to_string(suppressed) + " more like it)";
    return true;
}

uint64_t log_suppressed()
{
    return suppressedInAll;
}

uint64_t log_lost()
{
    return lostInAll;
}

} // namespace zebd
