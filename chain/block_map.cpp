#include "chain/block_map.h"

#include <errno.h>
#include <linux/fs.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "chain/transfer.h"
#include "config/log.h"

int map_block(int fd, int *block) {
    const int file_block = *block;
    // A call that fails may have put a 0 in its place.
    return static_cast<int>(TEMP_FAILURE_RETRY((*block = file_block, ioctl(fd, FIBMAP, block))));
}

off64_t seek_to_block(int fd, int64_t block, uint64_t block_size) {
    // Unsigned, because a negative block number must not overflow: it makes a negative offset, and
    // lseek64 refuses that.
    const off64_t offset = static_cast<off64_t>(static_cast<uint64_t>(block) * block_size);
    off64_t position = -1;
    do {
        position = lseek64(fd, offset, SEEK_SET);
    } while (position == -1 && errno == EINTR);
    return position;
}

int read_file_block(int map_fd, int device_fd, uint32_t index, void *buffer, int32_t block_size) {
    int block = static_cast<int>(index);
    if (map_block(map_fd, &block) != 0) {
        log_error("failed to find block %d\n", static_cast<int>(index));
        return -1;
    }
    if (seek_to_block(device_fd, block, static_cast<uint64_t>(block_size)) == -1) {
        log_error("error seeking to block %08x: %s\n", static_cast<unsigned>(block),
                  strerror(errno));
        return -1;
    }
    return read_retry(device_fd, buffer, static_cast<size_t>(block_size));
}
