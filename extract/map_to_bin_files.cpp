#include "extract/map_to_bin_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "chain/block_map.h"
#include "chain/format/dump_layout.h"
#include "chain/transfer.h"
#include "config/log.h"
#include "extract/dump_space.h"
#include "extract/dump_stream.h"

// Feeds the payloads of the map file's n blocks to the parser. The order is the file's, not that of
// the links; in an intact chain the two are the same.
static int parse_blocks(int map_fd, int device_fd, uint32_t n, uint8_t *buffer,
                        int32_t block_size) {
    for (uint32_t i = 0; i < n; ++i) {
        if (read_file_block(map_fd, device_fd, i, buffer, block_size) == -1) {
            return -1;
        }
        struct block_header header;
        memcpy(&header, buffer, sizeof(header));
        if (header.magic != block_header_magic &&
            !pass_over_bad_magic(header.magic, block_header_magic)) {
            // Not a block of the chain: the dump ends here.
            return 0;
        }
        const uint32_t payload_size = dump_payload_size(static_cast<uint32_t>(block_size));
        memmove(buffer, buffer + sizeof(header), payload_size);
        if (process_data(buffer, payload_size) < 0) {
            // The end of the dump. No failure, also where it is damaged: the files found so far are
            // worth keeping.
            return 0;
        }
    }
    return 0;
}

int map_to_bin_files(const char *map_path, const char *blkdev) {
    struct stat map_stat;
    if (stat(map_path, &map_stat) == -1) {
        log_error("failed to stat %s: %s\n", map_path, strerror(errno));
        return -1;
    }
    // The chain's block length too: the chain was built from the same file.
    const int32_t block_size = static_cast<int32_t>(map_stat.st_blksize);
    const size_t buffer_size = static_cast<size_t>(block_size);
    const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[buffer_size]);
    if (buffer == nullptr) {
        log_error("failed to allocate block buffer\n");
        return -1;
    }
    const int map_fd = open_retry(map_path, O_RDONLY);
    if (map_fd == -1) {
        log_error("failed to open infile:%s for reading: %s\n", map_path, strerror(errno));
        return -1;
    }
    (void)TEMP_FAILURE_RETRY(fsync(map_fd));
    const int device_fd = open_retry(blkdev, O_RDONLY | O_SYNC);
    if (device_fd == -1) {
        log_error("failed to open blk_dev:%s for reading: %s\n", blkdev, strerror(errno));
        close(map_fd);
        return -1;
    }
    log_info("Opened %s for reading\n", blkdev);

    int result = -1;
    if (has_space_for_dump(map_path)) {
        const uint32_t n =
            static_cast<uint32_t>(static_cast<int64_t>(map_stat.st_size) / block_size);
        result = parse_blocks(map_fd, device_fd, n, buffer.get(), block_size);
    }
    close(device_fd);
    close(map_fd);
    return result;
}
