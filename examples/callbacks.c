/* Has a function called with each notification of type "/hello", and ends after as many as the argument says.
 *
 *     TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320 callbacks 3
 */
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <zeb.h>

/* Runs on a thread of the library, whose stack is small: no large arrays, no floating-point numbers printed.
 */
static int32_t hello(zeb_notification *n, void *context)
{
    const char *body = zeb_notification_body(n, NULL);
    printf("%s: %s\n", zeb_notification_type(n), body ? body : "");
    fflush(stdout);
    sem_post(context);
    return 0; /* ignored; n is given back by itself */
}

int main(int argc, char **argv)
{
    long wanted = argc > 1 ? strtol(argv[1], NULL, 10) : 1;
    sem_t called;
    if (zeb_init() != 0)
        return 1;
    sem_init(&called, 0, 0);
    zeb_subscriber *s = zeb_subscriber_create("\"@type=/hello\"", "callbacks", NULL, NULL, NULL);
    /* Mode 0: one call after the other, in order. Mode 1 would have a thread for each. */
    int failed = zeb_subscriber_registercallback(s, hello, &called, 0);
    while (failed == 0 && wanted-- > 0)
        while (sem_wait(&called) != 0) /* interrupted by a signal */
            continue;
    zeb_subscriber_cancelcallback(s);
    zeb_subscriber_close(s);
    zeb_shutdown();
    return failed != 0;
}
