/* Publishes from a process and from its child. The child starts a runtime of its own; the parent's goes on.
 *
 *     TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320 fork
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zeb.h>

static void publish(const char *type)
{
    zeb_publisher *publisher = zeb_publisher_create("fork");
    zeb_publisher_publish(publisher, zeb_notification_create(type, NULL, 0));
    zeb_publisher_close(publisher);
}

/* Nothing that the parent has made works here, and nothing of it has to be released. */
static int child(void)
{
    if (zeb_init() != 0)
        return 1;
    publish("/fork/child");
    zeb_shutdown();
    return 0;
}

int main(void)
{
    int status = 1;
    if (zeb_init() != 0)
        return 1;
    publish("/fork/before");
    pid_t pid = fork();
    if (pid == 0)
        _exit(child());
    if (pid == -1 || waitpid(pid, &status, 0) != pid)
        perror("fork");
    publish("/fork/after");
    zeb_shutdown();
    return status != 0;
}
