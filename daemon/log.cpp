#include "log.h"

#include <array>
#include <memory>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <time.h>

namespace zebd
{

static uint32_t allowedPerSecond = 20;
static std::array<log_rate, logKinds> rates;
static uint64_t suppressedInAll = 0;

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
    auto logger = std::make_shared<spdlog::logger>("zebd", std::make_shared<spdlog::sinks::stderr_sink_st>());
    logger->set_formatter(std::move(formatter));
    spdlog::set_default_logger(std::move(logger));
}

void log_set(const std::string &level, uint32_t linesPerSecond)
{
    spdlog::set_level(spdlog::level::from_str(level));
    allowedPerSecond = linesPerSecond;
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

} // namespace zebd
