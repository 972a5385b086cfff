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
    const char *body = zeb_notification_body(n, NULL); /* ends with a NUL, whatever it holds */
    printf("%s in %s: %s\n", zeb_notification_type(n), language ? language : "?", body ? body : "");
    fflush(stdout);
}

int main(int argc, char **argv)
{
    long wanted = argc > 1 ? strtol(argv[1], NULL, 10) : -1;
    char *status = NULL;
    if (zeb_init() != 0) /* it has said why on standard error */
        return 1;
    zeb_subscriber *s = zeb_subscriber_create("\"@type=/hello\"", "hello_subscribe", NULL, NULL, &status);
    fprintf(stderr, "hello_subscribe: %s\n", status ? status : "no answer");
    free(status);
    const int failed = s == NULL;
    zeb_notification *n;
    while (s && wanted-- != 0 && (n = zeb_subscriber_receive(s, 1, 0)) != NULL) { /* waits without limit */
        print(n);
        zeb_subscriber_relinquish(s, n); /* n is gone with what was borrowed from it */
    }
    zeb_subscriber_close(s);
    zeb_shutdown();
    return failed;
}
