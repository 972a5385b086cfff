/* Ends with the number of descriptors above standard error that it was given. */
#include <fcntl.h>
#include <unistd.h>

int main()
{
    int count = 0;
    for (int fd = STDERR_FILENO + 1; fd < 4096; fd++)
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return count < 100 ? count : 100;
}
