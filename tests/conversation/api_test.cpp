/* The boundary of the library as a program meets it. */
#include "conversation.h"

#include <dlfcn.h>
#include <fstream>

namespace
{

using namespace zebtest;
using api = conversation;

TEST_F(api, every_exported_name_is_found)
{
    std::ifstream names(ZEB_EXPORTS);
    std::string name;
    int count = 0;
    while (std::getline(names, name)) {
        EXPECT_NE(dlsym(RTLD_DEFAULT, name.c_str()), nullptr) << name;
        count++;
    }
    EXPECT_GE(count, 102);
}

TEST_F(api, no_internal_name_is_found)
{
    for (const char *name :
         {"ezeb_init", "ezeb_shutdown", "ezeb_subscriber_create", "ezeb_publish", "ezeb_malloc",
          "ezeb_get_lib_string", "ezebglobalctx", "zeb_rpcclient_register_callback"})
        EXPECT_EQ(dlsym(RTLD_DEFAULT, name), nullptr) << name;
}

TEST_F(api, one_time_remote_publish_returns_minus_one_with_and_without_a_runtime)
{
    EXPECT_EQ(zeb_one_time_remote_publish(), -1);
    peer p = connected();
    EXPECT_EQ(zeb_one_time_remote_publish(), -1);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(api, publisher_before_init_is_null_without_waiting)
{
    const stopwatch watch;
    EXPECT_EQ(zeb_publisher_create("c"), nullptr);
    EXPECT_LT(watch.elapsed(), milliseconds{500});
}

TEST_F(api, subscribers_before_init_are_null_and_their_text_is_cleared)
{
    char stale[] = "stale";
    char *text = stale;
    EXPECT_EQ(zeb_subscriber_create("/t", "c", nullptr, nullptr, &text), nullptr);
    EXPECT_EQ(text, nullptr);
    text = stale;
    EXPECT_EQ(zeb_subscriber_create_wdeltas("/t", "c", nullptr, nullptr, &text), nullptr);
    EXPECT_EQ(text, nullptr);
    text = stale;
    EXPECT_EQ(zeb_subscriber_create_wtimeout("/t", "c", nullptr, nullptr, &text, 1000), nullptr);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(zeb_subscriber_create_async("/t", "c", nullptr, nullptr), nullptr);
}

TEST_F(api, instance_name_without_a_runtime_is_null)
{
    char stale[] = "stale";
    char *name = stale;
    zeb_get_instancename(&name);
    EXPECT_EQ(name, nullptr);
}

TEST_F(api, tier_name_is_always_null)
{
    char stale[] = "stale";
    char *name = stale;
    zeb_get_tiername(&name);
    EXPECT_EQ(name, nullptr);
    peer p = connected();
    name = stale;
    zeb_get_tiername(&name);
    EXPECT_EQ(name, nullptr);
}

TEST_F(api, null_output_pointers_are_accepted)
{
    zeb_get_tiername(nullptr);
    zeb_get_instancename(nullptr);
    peer p = connected();
    zeb_get_tiername(nullptr);
    zeb_get_instancename(nullptr);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(api, null_handles_give_the_failure_result)
{
    peer p = connected();
    char *text = nullptr;
    EXPECT_EQ(zeb_subscriber_status(nullptr, &text), 2);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(zeb_subscriber_receive(nullptr, 1, 0), nullptr);
    EXPECT_EQ(zeb_subscriber_id(nullptr), 0xFFFFFFFFU);
    EXPECT_EQ(zeb_subscriber_getPublisher(nullptr), nullptr);
    EXPECT_EQ(zeb_subscriber_component(nullptr), nullptr);
    EXPECT_EQ(zeb_subscriber_subscription(nullptr), nullptr);
    EXPECT_EQ(zeb_subscriber_getName(nullptr), nullptr);
    EXPECT_EQ(zeb_subscriber_setName(nullptr, "name"), nullptr);
    EXPECT_EQ(zeb_subscriber_getState(nullptr), 0);
    zeb_subscriber_returnState(nullptr, "state", 5);
    EXPECT_EQ(zeb_subscriber_cancelcallback(nullptr), -1);
    zeb_subscriber_close(nullptr);
    zeb_publisher_close(nullptr);
    zeb_publisher_publish(nullptr, nullptr);
    EXPECT_EQ(sent_before_mark(p), "");
}

} // namespace
