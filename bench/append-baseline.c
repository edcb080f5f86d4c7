/* The least a logged line costs: open the file for appending, write the
 * line, synchronize it to disk, close it. Usage: append-baseline FILE COUNT
 * LINE; prints the nanoseconds per line. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: append-baseline FILE COUNT LINE\n");
        return 64;
    }
    const long count = strtol(argv[2], NULL, 10);
    const char* line = argv[3];
    const size_t length = strlen(line);
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (long i = 0; i < count; ++i) {
        const int fd = open(argv[1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            perror("open");
            return 1;
        }
        if (write(fd, line, length) != (ssize_t)length || fsync(fd) != 0) {
            perror("write");
            close(fd);
            return 1;
        }
        close(fd);
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    const double ns = (double)(end.tv_sec - start.tv_sec) * 1e9 + (double)(end.tv_nsec - start.tv_nsec);
    printf("%.0f\n", ns / (double)count);
    return 0;
}
