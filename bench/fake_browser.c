/* A browser that only notes, on entering main(), the monotonic time at which it
 * started, in the file named by FAKE_BROWSER_STAMP. */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

int main(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
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
