// Stands in for the tool in the emulator's tests: each argument list shows one thing that a run of
// the tool needs of the device.
#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

// The file system's block number of a file's first block, or -1.
static int first_block(const char *path) {
    int block = 0;
    const int fd = open(path, O_RDONLY);
    return ioctl(fd, FIBMAP, &block) == 0 ? block : -1;
}

int main(int argc, char **argv) {
    const char *action = argc > 1 ? argv[1] : "";
    const char *argument = argc > 2 ? argv[2] : "";
    if (strcmp(action, "bytes") == 0) {
        // What a terminal or a line-based channel would change.
        fwrite("\0\r\n\xff\x1b", 1, 5, stdout);
        fprintf(stderr, "uid %d, %d arguments\r\n", (int)getuid(), argc);
    } else if (strcmp(action, "status") == 0) {
        return atoi(argument);
    } else if (strcmp(action, "abort") == 0) {
        abort();
    } else if (strcmp(action, "hang") == 0) {
        fputs("before the hang\n", stderr);
        pause();
    } else if (strcmp(action, "memory") == 0) {
        const size_t size = (size_t)atoi(argument) << 20;
        char *touched = malloc(size);
        memset(touched, 1, size);
        printf("%d\n", touched[size / 2]);
    } else if (strcmp(action, "block") == 0) {
        printf("%d\n", first_block(argument));
    }
    return 0;
}
