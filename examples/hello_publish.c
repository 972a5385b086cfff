/* Publishes one notification with a property and a body, and ends when it is sent.
 *
 *     TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320 hello_publish "Good morning"
 */
#include <string.h>
#include <zeb.h>

int main(int argc, char **argv)
{
    const char *text = argc > 1 ? argv[1] : "Hello, world";
    if (zeb_init() != 0) /* it has said why on standard error */
        return 1;
    zeb_publisher *publisher = zeb_publisher_create("hello_publish");
    zeb_notification *n = zeb_notification_create("/hello", text, (int32_t)strlen(text));
    const int32_t failed = zeb_notification_setProperty(n, "language", "en");
    if (failed == 0)
        zeb_publisher_publish(publisher, n); /* n belongs to the library now */
    zeb_publisher_close(publisher);
    zeb_shutdown(); /* sends what is queued before it returns */
    return failed != 0;
}
