/* A browser for the load tests: appends the link it was given to the file
 * named first on its command line, one line per start (a single write to a
 * file opened for appending, so that starts at the same moment do not mix). */
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    char line[65536];
    const int length = snprintf(line, sizeof line, "%s\n", argv[2]);
    if (length <= 0 || length >= (int)sizeof line)
        return 1;
    const int file = open(argv[1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0)
        return 1;
    const int written = (int)write(file, line, (size_t)length);
    close(file);
    return written == length ? 0 : 1;
}
