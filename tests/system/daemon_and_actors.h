/* What the tests of the whole system start from: a daemon, and clients of it on demand. */
#pragma once

#include "actor.h"

#include <csignal>

struct System : testing::Test {
    process::zebd daemon;
    process::environment env;
    process::arguments options; /* of the daemon */

    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        start_daemon();
    }

    void start_daemon()
    {
        process::start_zebd(daemon, options);
        ASSERT_NE(daemon.port, 0);
        env = {{"TAMBEK_ZEB_PROXY_PORT", std::to_string(daemon.port)}, {"TAMBEK_HOME", "/nonexistent"}};
    }

    void start(actor &client) const
    {
        process::start(client, {ZEB_SYSTEM_CLIENT}, env);
        EXPECT_EQ(client.hear(""), "ready");
    }
};
