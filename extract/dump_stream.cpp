#include "extract/dump_stream.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "chain/format/dump_layout.h"
#include "chain/transfer.h"
#include "config/log.h"
#include "extract/bounded_path.h"
#include "extract/dump_directory.h"

// The parser's state, from one block's payload to the next.
static bool in_file;                    // the data of a file is being copied
static uint64_t remaining;              // bytes of it still to come
static FILE *output;                    // where they go
static struct dump_file_header header;  // the last one read
static int32_t parse_error_count;       // bad magics, in block headers and file headers
static bool ignore_bad_magic;           // never set: a bad magic is where a dump ends
static int storage_error;               // the first, as dump_storage_error says

static void note_storage_error(int error) {
    if (storage_error == 0) {
        storage_error = error;
    }
}

int dump_storage_error() {
    return storage_error;
}

bool dump_file_is_unfinished() {
    return in_file && remaining > 0;
}

bool pass_over_bad_magic(uint32_t got, uint32_t expected) {
    ++parse_error_count;
    if (!ignore_bad_magic) {
        log_info("* bad magic, got %08x, expecting %08x\n", got, expected);
    }
    return ignore_bad_magic;
}

static int write_file_data(const uint8_t *data, uint64_t count) {
    // An empty file ends the dump here as well: nothing is one element of nothing.
    if (fwrite(data, count, 1, output) != 1) {
        if (count > 0) {
            note_storage_error(errno);
        }
        log_info("Could not write %lu bytes", count);
        return -1;
    }
    remaining -= count;
    if (remaining == 0) {
        if (fclose(output) != 0) {
            note_storage_error(errno);
        }
        output = nullptr;
        in_file = false;
    }
    return 0;
}

// Whether it is not the name's own fault that the file cannot be opened.
static bool is_storage_error(int error, const char *name) {
    switch (error) {
        case EDQUOT:
        case EIO:
        case EMFILE:
        case ENFILE:
        case ENOMEM:
        case ENOSPC:
            return true;
        case EACCES:
        case EPERM:
        case EROFS:
            return strchr(name, '/') == nullptr;  // else it leads out of the dump directory
        default:
            return false;
    }
}

static int begin_file(const uint8_t *data) {
    memcpy(&header, data, sizeof(header));
    char name[dump_file_longest_name_found + 1] = {};
    memcpy(name, data + offsetof(struct dump_file_header, name), dump_file_longest_name_found);
    // Before the magic is checked, so that the last such line shows the bytes that ended the dump.
    log_error("Found file '%s', size %llu\n", name, static_cast<unsigned long long>(header.size));
    if (header.magic != dump_file_header_magic &&
        !pass_over_bad_magic(header.magic, dump_file_header_magic)) {
        return -1;
    }
    remaining = header.size;
    in_file = true;

    char path[dump_file_longest_path + 1];
    format_path(path, sizeof(path), "%s%s", ramdump_path, name);
    log_error("full path: %s\n", path);
    output = fopen(path, "wb");
    if (output == nullptr) {
        if (is_storage_error(errno, name)) {
            note_storage_error(errno);
        }
        log_info("Could not open file '%s' for writing\n", path);
        return -1;
    }
    return 0;
}

int64_t process_data(uint8_t *data, int64_t len) {
    if (len < 1) {
        return len;
    }
    uint64_t left = static_cast<uint64_t>(len);
    while (left > 0) {
        uint64_t taken = 0;
        if (in_file) {
            taken = std::min(remaining, left);
            if (write_file_data(data, taken) == -1) {
                return -1;
            }
        } else {
            if (!dump_file_header_fits(left)) {
                // Padding.
                remaining = 0;
                return 0;
            }
            taken = sizeof(header);
            if (begin_file(data) == -1) {
                return -1;
            }
        }
        data += taken;
        left -= taken;
    }
    return 0;
}

void sync_dump_files() {
    if (output != nullptr && fflush(output) != 0) {
        note_storage_error(errno);
    }
    // The whole file system: the files, their directory and the directories above it.
    const int fd = open_retry(ramdump_path, O_RDONLY | O_DIRECTORY);
    if (fd == -1) {
        note_storage_error(errno);
        return;
    }
    if (TEMP_FAILURE_RETRY(syncfs(fd)) != 0) {
        note_storage_error(errno);
    }
    close(fd);
}
