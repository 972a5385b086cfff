/* Prints the notifications of type "/hello" as they arrive: all of them, or as many as the argument says.
 *
 *     TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320 hello_subscribe 3
 */
#include <stdio.h>
#include <stdlib.h>
#include <zeb.h>

static void print(const zeb_notification *n)
{
    const char *language = zeb_notification_getProperty(n, "language");
    int32_t length = 0;
    const char *body = zeb_notification_body(n, &length);
    printf("%s (%s): %.*s\n", zeb_notification_type(n), language != NULL ? language : "no language",
           (int)length, body != NULL ? body : "");
    fflush(stdout);
}

static int subscribe(long count)
{
    char *why = NULL;
    zeb_subscriber *s = zeb_subscriber_create("\"@type=/hello\"", "hello_subscribe", NULL, NULL, &why);
    if (s == NULL) {
        fprintf(stderr, "hello_subscribe: %s\n", why != NULL ? why : "not subscribed");
        free(why);
        return 1;
    }
    free(why); /* the daemon may have a word to say in any case */
    fputs("hello_subscribe: subscribed\n", stderr);
    zeb_notification *n;
    while (count-- != 0 && (n = zeb_subscriber_receive(s, 1, 0)) != NULL) {
        print(n);
        zeb_subscriber_relinquish(s, n);
    }
    zeb_subscriber_close(s);
    return 0;
}

int main(int argc, char **argv)
{
    if (zeb_init() != 0) /* it has said why on standard error */
        return 1;
    const int failed = subscribe(argc > 1 ? strtol(argv[1], NULL, 10) : -1);
    zeb_shutdown();
    return failed;
}
