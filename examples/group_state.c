/* Keeps a sum that all members of a group agree on. Each adds what events of type "/group/add" bring; who
 * joins asks the longest-lived other member how far they are. Ends after as many additions as the argument
 * says.
 *
 *     TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320 group_state 10
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zeb.h>

static long sum;
static int known; /* whether the sum is the group's */

static zeb_subscriber *join(void)
{
    zeb_proplist *properties = zeb_proplist_create(); /* what the others find us by */
    zeb_proplist_put(properties, "group", "adders");
    zeb_subscriber *s =
        zeb_subscriber_create("\"@type=/group/add\"", "group_state", "\"group=adders\"", properties, NULL);
    zeb_proplist_destroy(&properties);
    known = 0;
    return s;
}

static void answer(zeb_subscriber *s)
{
    char text[32];
    snprintf(text, sizeof text, "%ld", sum);
    zeb_subscriber_returnState(s, text, (uint32_t)strlen(text));
}

/* 1 when N was an addition. */
static int take(zeb_subscriber *s, zeb_notification *n)
{
    const char *body = zeb_notification_body(n, NULL);
    switch (zeb_notification_getClass(n)) {
    case ZEB_CLASS_MEMBERSHIPLIST: /* comes first, and after each change of the group */
        if (!known)
            known = !zeb_subscriber_getState(s); /* nobody to ask: our sum is the group's */
        return 0;
    case ZEB_CLASS_STATEGET: /* somebody asks us */
        answer(s);
        return 0;
    case ZEB_CLASS_STATESET: /* the answer to our question */
        sum = body ? strtol(body, NULL, 10) : 0;
        known = 1;
        break;
    case ZEB_CLASS_MESSAGE:
        sum += body ? strtol(body, NULL, 10) : 0;
        break;
    default:
        return 0;
    }
    printf("%s: %ld\n", known ? "sum" : "not the sum yet", sum);
    fflush(stdout);
    return zeb_notification_getClass(n) == ZEB_CLASS_MESSAGE;
}

int main(int argc, char **argv)
{
    long wanted = argc > 1 ? strtol(argv[1], NULL, 10) : 1;
    if (zeb_init() != 0)
        return 1;
    zeb_subscriber *s = join();
    zeb_notification *n;
    while (wanted > 0 && (n = zeb_subscriber_receive(s, 1, 0)) != NULL) {
        int left = zeb_notification_getClass(n) == ZEB_CLASS_LEAVEGROUP;
        wanted -= take(s, n);
        zeb_subscriber_relinquish(s, n);
        if (left) { /* the daemon is gone; this subscriber gets nothing more */
            zeb_subscriber_close(s);
            s = join(); /* waits until the daemon is back */
        }
    }
    zeb_subscriber_close(s);
    zeb_shutdown();
    return wanted > 0;
}
