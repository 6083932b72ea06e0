#include "chain/transfer.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "config/log.h"

int open_retry(const char *path, int flags, mode_t mode) {
    return static_cast<int>(TEMP_FAILURE_RETRY(open(path, flags, mode)));
}

// 0 bytes means try again, at the end of a file for ever. That is on purpose: all blocks of the map
// file lie inside the device.

int read_retry(int fd, void *buffer, size_t length) {
    size_t done = 0;
    while (done < length) {
        const ssize_t count = read(fd, static_cast<char *>(buffer) + done, length - done);
        if (count == -1) {
            if (errno == EINTR) {
                continue;
            }
            log_error("error reading: %s\n", strerror(errno));
            return -1;
        }
        done += static_cast<size_t>(count);
    }
    return 0;
}

int write_retry(int fd, const void *buffer, size_t length) {
    size_t done = 0;
    while (done < length) {
        const ssize_t count = write(fd, static_cast<const char *>(buffer) + done, length - done);
        if (count == -1) {
            if (errno == EINTR) {
                continue;
            }
            log_error("error writing: %s\n", strerror(errno));
            return -1;
        }
        done += static_cast<size_t>(count);
    }
    return 0;
}
