/* The counters by name, and the text that a Prometheus server scrapes. */
#pragma once

#include "reports.h"

#include <span>
#include <string>
#include <string_view>

namespace zebd
{

struct counter_description {
    std::string_view name;   /* in JSON */
    std::string_view metric; /* several with one metric stand together and differ in their label */
    std::string_view label;  /* as it stands between the braces, or empty */
    std::string_view help;
    uint64_t (*value)(const daemon_report &);
};

std::span<const counter_description> counter_descriptions();

std::string metrics_text(const daemon_report &report);

} // namespace zebd
