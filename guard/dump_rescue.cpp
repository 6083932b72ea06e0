#include "guard/dump_rescue.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "chain/format/dump_layout.h"
#include "chain/format/initial_block_header.h"
#include "extract/dump_directory.h"
#include "extract/dump_space.h"
#include "extract/dump_stream.h"
#include "extract/pending_dump.h"
#include "guard/chain_links.h"
#include "guard/device_blocks.h"
#include "guard/guard_log.h"
#include "partitions/partition_items.h"

// Feeds the payloads to the parser until the dump or the chain ends. Whether the parser ended it.
static bool parse_links(struct chain_links *links) {
    const uint32_t payload_size = dump_payload_size(links->device->block_length);
    for (uint8_t *bytes = next_link(links); bytes != nullptr; bytes = next_link(links)) {
        if (process_data(bytes + sizeof(struct block_header), payload_size) < 0) {
            return true;
        }
    }
    return false;
}

// Asks for the dump's files one by one: kernels before 5.8 tell of a write that failed when its own
// file is synced, not when the whole file system is. 0, or the error's number.
static int check_saved_files() {
    DIR *directory = opendir(ramdump_path);
    if (directory == nullptr) {
        return errno;
    }
    int error = 0;
    while (error == 0) {
        errno = 0;
        const struct dirent *entry = readdir(directory);
        if (entry == nullptr) {
            error = errno;
            break;
        }
        const int file = static_cast<int>(TEMP_FAILURE_RETRY(openat(
            dirfd(directory), entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
        if (file == -1 || TEMP_FAILURE_RETRY(fsync(file)) != 0) {
            error = errno;
        }
        if (file != -1) {
            close(file);
        }
    }
    closedir(directory);
    return error;
}

static void say_how_it_ended(const struct chain_links *links, bool parser_ended, uint64_t n_found) {
    if (!dump_file_is_unfinished() && links->fault == nullptr) {
        guard_error("the pending dump is saved along the links: %lu blocks\n", links->position);
    } else if (parser_ended) {
        guard_error("the pending dump is cut: the last file that was found cannot be opened\n");
    } else if (links->position < n_found) {
        guard_error(
            "the pending dump is cut: %lu of %lu blocks are saved, then the dump's own files took "
            "the place of the rest\n",
            links->position, links->n_blocks);
    } else if (links->fault != nullptr) {
        guard_error(
            "the pending dump is cut: %lu of %lu blocks are saved, then the chain breaks "
            "off: %s\n",
            links->position, links->n_blocks, links->fault);
    } else {
        guard_error("the pending dump is cut: its last file goes on behind the chain's end\n");
    }
}

bool rescue_dump(struct initial_block_header *anchor, struct device_blocks *device,
                 uint64_t n_found, const char *map_path) {
    // The space first: begin_extraction removes older dumps.
    if (!has_space_for_dump(map_path) || begin_extraction(anchor) < 0) {
        guard_error("the pending dump cannot be saved: it stays, and nothing is started\n");
        return false;
    }
    struct chain_links links;
    start_links(&links, anchor, device);
    const bool parser_ended = parse_links(&links);
    sync_dump_files();
    int error = dump_storage_error();
    if (error == 0) {
        error = check_saved_files();
    }
    if (error == 0 && links.unreadable) {
        // What is behind the block may be read at another start, or from an image.
        guard_error("the pending dump cannot be read: it stays, and nothing is started: %s\n",
                    links.fault);
        return false;
    }
    if (error == 0) {
        finish_extraction(anchor, map_path);
        error = -store_anchor(anchor);
    }
    if (error != 0) {
        guard_error("the pending dump is not safe: it stays, and nothing is started: %s\n",
                    strerror(error));
        return false;
    }
    say_how_it_ended(&links, parser_ended, n_found);
    return true;
}
