#include "chain/block_map.h"

#include <errno.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

int map_block(int fd, int *block) {
    return ioctl(fd, FIBMAP, block);
}

off64_t seek_to_block(int fd, int64_t block, uint64_t block_size) {
    // Unsigned, so that a negative block number of the file system makes a negative offset without
    // overflow; lseek64 refuses that.
    off64_t offset = static_cast<off64_t>(static_cast<uint64_t>(block) * block_size);
    off64_t position = -1;
    do {
        position = lseek64(fd, offset, SEEK_SET);
    } while (position == -1 && errno == EINTR);
    return position;
}
