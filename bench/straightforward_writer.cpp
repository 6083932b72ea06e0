#include "bench/straightforward_writer.h"

#include <fcntl.h>
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chain/block_map.h"
#include "chain/chain_writer.h"

static int write_headers(int map_fd, int device_fd, int32_t n, uint64_t block_size) {
    int prev = 0;
    for (int32_t i = 0; i < n; ++i) {
        int block = i;
        if (map_block(map_fd, &block) != 0 || block == 0) {
            return -1;
        }
        if (i > 0) {
            write_header(device_fd, prev, block, block_size, i);
        }
        prev = block;
    }
    write_header(device_fd, prev, 0, block_size, n);
    return 0;
}

int write_straightforward(const char *file, const char *blkdev) {
    struct stat map_stat;
    const int map_fd = open(file, O_RDONLY);
    const int device_fd = open(blkdev, O_WRONLY);
    if (map_fd == -1 || device_fd == -1 || fstat(map_fd, &map_stat) == -1) {
        return -1;
    }
    fsync(map_fd);
    const int32_t n = static_cast<int32_t>(map_stat.st_size / map_stat.st_blksize);
    if (write_headers(map_fd, device_fd, n, static_cast<uint64_t>(map_stat.st_blksize)) == -1) {
        return -1;
    }
    close(map_fd);
    fsync(device_fd);
    close(device_fd);
    return 0;
}
