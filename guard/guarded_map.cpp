#include "guard/guarded_map.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "chain/block_device_lookup.h"
#include "chain/transfer.h"
#include "guard/guard_log.h"

const char map_directory[] = "/data/vendor/ramdump/";

static int cannot_look(const char *path) {
    guard_error("cannot look: %s: %s\n", path, strerror(errno));
    return -1;
}

// Finds the map file's real path; of one that is missing, the path that the service would give it.
static bool resolve_path(const char *path, char *resolved) {
    if (realpath(path, resolved) != nullptr) {
        return true;
    }
    const char *slash = strrchr(path, '/');
    struct stat link;
    if (errno != ENOENT || slash == nullptr || slash == path || lstat(path, &link) == 0) {
        errno = ENOENT;  // also of a link that leads nowhere: what is there is not mounted yet
        return false;
    }
    char directory[PATH_MAX];
    snprintf(directory, sizeof(directory), "%.*s", static_cast<int>(slash - path), path);
    if (realpath(directory, resolved) == nullptr) {
        return false;
    }
    const size_t length = strlen(resolved);
    return snprintf(resolved + length, PATH_MAX - length, "%s", slash) <
           static_cast<int>(PATH_MAX - length);
}

int open_guarded_map(const char *map_path, struct guarded_map *map) {
    if (!resolve_path(map_path, map->path)) {
        return cannot_look(map_path);
    }
    if (!load_device_fstab()) {
        guard_error("cannot look: no fstab\n");
        return -1;
    }
    int encryptable = 0;
    int encrypted = 0;
    map->device_path = find_block_device(map->path, &encryptable, &encrypted);
    if (map->device_path == nullptr) {
        guard_error("cannot look: the fstab has no block device for %s\n", map->path);
        return -1;
    }
    if (is_block_length(map->anchor.block_length) &&
        open_device_blocks(map->device_path, map->anchor.block_length, &map->device) != 0) {
        return cannot_look(map->device_path);
    }
    map->file = open_retry(map->path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (map->file == -1 && errno != ENOENT) {
        return cannot_look(map->path);
    }
    struct statfs file_system;
    if (map->file == -1 &&
        (statfs(map_directory, &file_system) != 0 || file_system.f_type == TMPFS_MAGIC)) {
        guard_error("cannot look: the data partition is not mounted\n");
        return -1;
    }
    struct stat map_stat;
    if (map->file != -1 && (fstat(map->file, &map_stat) != 0 || !S_ISREG(map_stat.st_mode))) {
        guard_error("cannot look: %s is no plain file\n", map->path);
        return -1;
    }
    return 0;
}
