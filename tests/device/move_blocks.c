// Has the file system move all blocks of a file to other places:  move_blocks FILE. A file that
// f2fs was told to leave alone is let go first by  move_blocks --unpin FILE.
#define _GNU_SOURCE
#include <fcntl.h>
#include <linux/f2fs.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

enum { block = 4096 };

// ext4's own request, which its defragmenter uses: swaps the blocks of two files, data in place.
struct move_extent {
    uint32_t reserved;
    uint32_t donor_fd;
    uint64_t orig_start;
    uint64_t donor_start;
    uint64_t len;
    uint64_t moved_len;
};
#define EXT4_IOC_MOVE_EXT _IOWR('f', 15, struct move_extent)

static int swap_with_new_file(int file, uint64_t blocks) {
    const int donor = open("/data", O_RDWR | O_TMPFILE, 0600);
    if (donor == -1 || fallocate(donor, 0, 0, (off_t)(blocks * block)) != 0) {
        return -1;
    }
    for (uint64_t at = 0; at < blocks;) {
        struct move_extent move = {0, (uint32_t)donor, at, at, blocks - at, 0};
        if (ioctl(file, EXT4_IOC_MOVE_EXT, &move) != 0 || move.moved_len == 0) {
            return -1;
        }
        at += move.moved_len;
    }
    return 0;
}

// What f2fs writes it puts elsewhere, as its cleaning does.
static int rewrite(int file, uint64_t blocks) {
    char bytes[block];
    for (uint64_t at = 0; at < blocks; ++at) {
        const off_t offset = (off_t)(at * block);
        if (pread(file, bytes, block, offset) != block ||
            pwrite(file, bytes, block, offset) != block) {
            return -1;
        }
    }
    return 0;
}

static int first_block(int file) {
    int block_number = 0;
    return fsync(file) == 0 && ioctl(file, FIBMAP, &block_number) == 0 ? block_number : -1;
}

int main(int argc, char **argv) {
    const char *path = argv[argc - 1];
    const int file = open(path, O_RDWR);
    const int before = first_block(file);
    struct stat status = {0};
    struct statfs file_system = {0};
    int failed = before == -1 || fstat(file, &status) != 0 || fstatfs(file, &file_system) != 0;
    const uint64_t blocks = (uint64_t)status.st_size / block;
    if (file_system.f_type == F2FS_SUPER_MAGIC) {
        uint32_t pinned = 0;
        failed |= strcmp(argv[1], "--unpin") == 0 && ioctl(file, F2FS_IOC_SET_PIN_FILE, &pinned);
        failed |= rewrite(file, blocks);
    } else {
        failed |= swap_with_new_file(file, blocks);
    }
    if (failed) {
        perror(path);
    }
    sync();
    if (!failed && first_block(file) == before) {
        fprintf(stderr, "%s: nothing has moved\n", path);
        failed = 2;
    }
    return failed;
}
