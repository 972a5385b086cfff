/* Publishes one notification with a property and a body, and ends when it is sent.
 *
 *     TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320 hello_publish "Hello, world"
 */
#include <stdio.h>
#include <string.h>
#include <zeb.h>

static int publish(const char *text)
{
    zeb_publisher *publisher = zeb_publisher_create("hello_publish");
    zeb_notification *n = zeb_notification_create("/hello", text, (int32_t)strlen(text));
    if (publisher == NULL || n == NULL || zeb_notification_setProperty(n, "language", "en") != 0) {
        fputs("hello_publish: out of memory\n", stderr);
        return 1;
    }
    zeb_publisher_publish(publisher, n); /* n belongs to the library now */
    zeb_publisher_close(publisher);
    return 0;
}

int main(int argc, char **argv)
{
    if (zeb_init() != 0) /* it has said why on standard error */
        return 1;
    const int failed = publish(argc > 1 ? argv[1] : "Hello, world");
    zeb_shutdown(); /* sends what is queued before it returns */
    return failed;
}
