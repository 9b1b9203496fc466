/* A browser that only notes, on entering main(), the monotonic time at which it
 * started, in the file named by FAKE_BROWSER_STAMP; or, with FAKE_BROWSER_LOG
 * set, appends its link to that file, a line per start. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const char *log = getenv("FAKE_BROWSER_LOG");
    if (log) {
        char line[8192];
        const int length = snprintf(line, sizeof line, "%s\n", argc > 1 ? argv[1] : "");
        const int file = open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0 || length <= 0 || length >= (int)sizeof line)
            return 1;
        const int written = (int)write(file, line, (size_t)length);
        close(file);
        return written == length ? 0 : 1;
    }
    const char *path = getenv("FAKE_BROWSER_STAMP");
    if (!path)
        return 1;
    char temporary[4096];
    snprintf(temporary, sizeof temporary, "%s.tmp", path);
    FILE *file = fopen(temporary, "w");
    if (!file)
        return 1;
    fprintf(file, "%lld\n", (long long)now.tv_sec * 1000000000LL + now.tv_nsec);
    fclose(file);
    return rename(temporary, path) == 0 ? 0 : 1;
}
