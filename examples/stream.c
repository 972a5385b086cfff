/* Sends what comes on standard input as a stream, or writes the next stream to standard output.
 *
 *     export TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320
 *     stream receive /backup > copy &
 *     stream send /backup < file
 */
#include <stdio.h>
#include <string.h>
#include <zeb.h>

static int send_input(const char *type)
{
    char buffer[4096];
    size_t count;
    zeb_publisher *publisher = zeb_publisher_create("stream");
    zeb_notification *head = zeb_notification_createstream(type);
    zeb_notification_setProperty(head, "name", "standard input"); /* goes with every piece */
    zeb_publisher_publish(publisher, head);                       /* binds it; nothing is sent yet */
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    while ((count = fread(buffer, 1, sizeof buffer, stdin)) > 0)
        zeb_outstream_write(out, buffer, (int32_t)count);
    zeb_outstream_close(&out); /* sends the end mark; the head goes with the stream */
    zeb_publisher_close(publisher);
    return 0;
}

static int write_next(const char *type)
{
    char text[256];
    char buffer[4096];
    int32_t count;
    snprintf(text, sizeof text, "\"@type=%s\"", type);
    zeb_subscriber *s = zeb_subscriber_create(text, "stream", NULL, NULL, NULL);
    zeb_notification *n = zeb_subscriber_receive(s, 1, 0); /* the first piece stands for the stream */
    if (n == NULL)
        return 1;
    zeb_instream *in = zeb_notification_getInputStream(n);
    const char *name = zeb_notification_getProperty(n, "name");
    fprintf(stderr, "stream: %s\n", name ? name : "without a name");
    zeb_subscriber_relinquish(s, n); /* the stream stays ours */
    while ((count = zeb_instream_read(in, buffer, sizeof buffer)) > 0)
        fwrite(buffer, 1, (size_t)count, stdout);
    zeb_instream_close(&in);
    zeb_subscriber_close(s);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc != 3 || (strcmp(argv[1], "send") != 0 && strcmp(argv[1], "receive") != 0)) {
        fprintf(stderr, "usage: stream send|receive TYPE\n");
        return 1;
    }
    if (zeb_init() != 0)
        return 1;
    int failed = strcmp(argv[1], "send") == 0 ? send_input(argv[2]) : write_next(argv[2]);
    zeb_shutdown();
    return failed;
}
