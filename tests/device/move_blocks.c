// Has the file system move a file's blocks to other places, as its own cleaning and defragmenting
// do:  move_blocks FILE. A file that f2fs was told to leave alone is let go first by
// move_blocks --unpin FILE.
#define _GNU_SOURCE
#include <fcntl.h>
#include <linux/f2fs.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

enum {
    block = 4096,
    most_extents = 4096,
    extents_size = sizeof(struct fiemap) + most_extents * sizeof(struct fiemap_extent)
};

static int fail(const char *what) {
    perror(what);
    return 1;
}

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

static int swap_with_new_file(int file, const char *path, uint64_t blocks) {
    char donor_path[4096];
    snprintf(donor_path, sizeof(donor_path), "%s.donor", path);
    const int donor = open(donor_path, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (donor == -1 || fallocate(donor, 0, 0, (off_t)(blocks * block)) != 0) {
        return fail(donor_path);
    }
    for (uint64_t at = 0; at < blocks;) {
        struct move_extent move = {0, (uint32_t)donor, at, at, blocks - at, 0};
        if (ioctl(file, EXT4_IOC_MOVE_EXT, &move) != 0 || move.moved_len == 0) {
            return fail("EXT4_IOC_MOVE_EXT");
        }
        at += move.moved_len;
    }
    return unlink(donor_path) == 0 ? 0 : fail(donor_path);
}

// Writes the first block, which f2fs puts elsewhere, and so has a file in pieces: such a file it
// writes anew when it is asked to. Cleans the segment of each piece, but for one that is still
// written to.
static void move_on_f2fs(int file, const struct fiemap *map, uint64_t blocks) {
    char bytes[block];
    if (pread(file, bytes, block, 0) != block || pwrite(file, bytes, block, 0) != block) {
        return;
    }
    sync();
    struct f2fs_defragment all = {0, blocks * block};
    (void)ioctl(file, F2FS_IOC_DEFRAGMENT, &all);
    for (uint32_t i = 0; i < map->fm_mapped_extents; ++i) {
        struct f2fs_gc_range range = {1, map->fm_extents[i].fe_physical / block, 1};
        (void)ioctl(file, F2FS_IOC_GARBAGE_COLLECT_RANGE, &range);
    }
}

static int get_extents(int file, struct fiemap *map) {
    memset(map, 0, extents_size);
    map->fm_length = FIEMAP_MAX_OFFSET;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = most_extents;
    return ioctl(file, FS_IOC_FIEMAP, map);
}

int main(int argc, char **argv) {
    const char *path = argv[argc - 1];
    const int file = open(path, O_RDWR);
    struct stat status;
    struct statfs file_system;
    struct fiemap *before = malloc(extents_size), *after = malloc(extents_size);
    if (file == -1 || fstat(file, &status) != 0 || fstatfs(file, &file_system) != 0 ||
        get_extents(file, before) != 0) {
        return fail(path);
    }
    if (file_system.f_type == F2FS_SUPER_MAGIC) {
        uint32_t pinned = 0;
        if (strcmp(argv[1], "--unpin") == 0 && ioctl(file, F2FS_IOC_SET_PIN_FILE, &pinned) != 0) {
            return fail("F2FS_IOC_SET_PIN_FILE");
        }
        move_on_f2fs(file, before, (uint64_t)status.st_size / block);
    } else if (swap_with_new_file(file, path, (uint64_t)status.st_size / block) != 0) {
        return 1;
    }
    sync();
    if (get_extents(file, after) != 0 || memcmp(before, after, extents_size) == 0) {
        fprintf(stderr, "%s: nothing has moved\n", path);
        return 2;
    }
    return 0;
}
