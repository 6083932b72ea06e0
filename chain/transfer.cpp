#include "chain/transfer.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "config/log.h"

// A transfer of 0 bytes is neither an end nor an error here, on purpose: the map file's blocks are
// all on the device, so what is missing is simply asked for again.

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
