#include "extract/dump_directory.h"

#include <dirent.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "config/log.h"
#include "extract/bounded_path.h"
#include "extract/directory_walk.h"
#include "extract/permissions.h"

#define BASE_DIRECTORY "/data/vendor/ramdump/apq/"

char ramdump_path[dump_path_size];
char permission_path[dump_path_size];

// A file system of more than 32 GiB has room for the dump before the newest one.
static const uint64_t two_dumps_above = 0x800000000;

// Makes the directory. When that fails it sets the mode: another process may have made it with a
// different one, and whoever fetches the dumps must get in.
static void make_directory(const char *path, bool keep_mode) {
    if (mkdir(path, 0777) == -1 && !keep_mode && chmod(path, 0777) == -1) {
        log_info("%s: fail to chmod for %s: %s.\n", "_mkdir", path, strerror(errno));
    }
}

void _mkdir(const char *path) {
    // Cleared: the walk below starts at the second character, also of an empty path.
    char prefix[working_path_size] = {};
    copy_directory_path(prefix, path);
    for (char *slash = strchr(prefix + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        // The mode of /data itself is the system's.
        make_directory(prefix, strcmp(prefix, "/data") == 0);
        *slash = '/';
    }
    make_directory(prefix, false);
}

// Plain files count too: a new directory must not get a name that is taken.
static int filter(const struct dirent *entry) {
    return entry->d_name[0] != '.';
}

// By number, since 100 comes after 99.
static int comparefun(const struct dirent **a, const struct dirent **b) {
    const int first = atoi((*a)->d_name);
    const int second = atoi((*b)->d_name);
    if (first == second) {
        return 0;
    }
    return first < second ? -1 : 1;
}

static uint64_t get_directory_total_space(const char *path) {
    struct statvfs file_system;
    uint64_t total = 0;
    if (TEMP_FAILURE_RETRY(statvfs(path, &file_system)) == 0) {
        total = static_cast<uint64_t>(file_system.f_blocks) * file_system.f_bsize;
    } else {
        log_error("%s: Could not statvfs %s: %s\n", __func__, path, strerror(errno));
    }
    log_error("%s: total_space: %lu\n", __func__, total);
    return total;
}

// The number after the highest one. Gaps are not filled: a higher number means a newer dump.
static int next_dump_number(struct dirent **entries, int n) {
    if (n == 0) {
        return 0;
    }
    // Unsigned, because the highest number may be INT_MAX and must not overflow.
    return static_cast<int>(static_cast<unsigned>(atoi(entries[n - 1]->d_name)) + 1U);
}

static void remove_entry(const char *entry_path, const char *name) {
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
        return;
    }
    log_info("%s: remove for %s.\n", "_remove", entry_path);
    if (remove(entry_path) == -1) {
        log_info("%s: fail to remove for %s: %s.\n", "_remove", entry_path, strerror(errno));
    }
}

// One level deep on purpose: a subdirectory is not the tool's. It stays, and so does the dump
// directory around it.
static void remove_dump_directory(const char *path) {
    visit_directory("_remove", path, remove_entry);
    if (rmdir(path) == -1) {
        log_info("%s(): rmdir %s failed! error: %s\n", "config_ramdump_path", path,
                 strerror(errno));
    }
}

int config_ramdump_path() {
    _mkdir(BASE_DIRECTORY);
    const int max_dump_dirs = get_directory_total_space(BASE_DIRECTORY) > two_dumps_above ? 2 : 1;

    struct dirent **entries = nullptr;
    const int n = scandir(BASE_DIRECTORY, &entries, filter, comparefun);
    if (n < 0) {
        log_info("scandir failed: %s\n", strerror(errno));
        return -1;
    }

    // A dump directory's path, cut at 63 characters: the new one, then each that is removed.
    char path[64];
    format_path(path, sizeof(path), BASE_DIRECTORY "%02d/", next_dump_number(entries, n));
    format_path(ramdump_path, sizeof(ramdump_path), "%s", path);
    log_error("path: %s\n", ramdump_path);
    format_path(permission_path, sizeof(permission_path), "%s", path);
    log_error("permission_path: %s\n", permission_path);
    _mkdir(ramdump_path);
    _chmod(path);

    // The new directory is not among the entries. Beside it stay max_dump_dirs - 1 old ones.
    for (int i = 0; i < n - max_dump_dirs + 1; ++i) {
        format_path(path, sizeof(path), BASE_DIRECTORY "%s", entries[i]->d_name);
        remove_dump_directory(path);
    }
    for (int i = 0; i < n; ++i) {
        free(entries[i]);
    }
    free(entries);
    return 0;
}
