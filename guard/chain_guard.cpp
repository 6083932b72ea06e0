#include "guard/chain_guard.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chain/anchor_clearing.h"
#include "chain/format/initial_block_header.h"
#include "config/properties.h"
#include "guard/chain_comparison.h"
#include "guard/chain_links.h"
#include "guard/copied_dump.h"
#include "guard/dump_rescue.h"
#include "guard/guard_log.h"
#include "guard/guarded_map.h"
#include "guard/map_pinning.h"
#include "partitions/partition_items.h"

static enum chain_comparison compare(struct guarded_map *map, bool every_header) {
    if (map->file == -1) {
        guard_error("the map file is missing: %s\n", map->path);
        return chain_differs;
    }
    return compare_chain(map->file, &map->anchor, &map->device, every_header);
}

// Blocks of an old chain that tell enough of it where no dump is pending: to read it all would only
// keep the service waiting.
static const uint64_t most_without_dump = 64;

static void publish(const char *chain) {
    (void)property_set("vendor.tarnix.chain", chain);
}

// Walks the old chain along its links, whose blocks need no longer be the map file's, and publishes
// what is left of it. Returns where the walk ended.
static struct chain_links walk_old_chain(struct guarded_map *map) {
    const uint64_t most = is_dump_pending(map->anchor.flags) ? UINT64_MAX : most_without_dump;
    struct chain_links links = {};
    links.fault = "absurd block length";
    if (map->device.buffer != nullptr) {
        start_links(&links, &map->anchor, &map->device);
        while (links.position < most && next_link(&links) != nullptr) {
        }
    }
    if (links.fault == nullptr && links.next != 0) {
        guard_error("the anchor's chain is good in its first %lu blocks\n", links.position);
    } else if (links.fault == nullptr) {
        guard_error("the anchor's chain is whole: %lu blocks\n", links.position);
    } else {
        guard_error("the anchor's chain breaks off behind %lu of %u blocks: %s\n", links.position,
                    map->anchor.n_blocks, links.fault);
    }
    publish(links.fault == nullptr ? "moved" : "broken");
    return links;
}

// Whether the path still names the file that was looked at. If not, errno says so.
static bool is_still_at_its_path(const struct guarded_map *map) {
    struct stat opened;
    struct stat named;
    if (fstat(map->file, &opened) != 0 || lstat(map->path, &named) != 0) {
        return false;
    }
    errno = ESTALE;
    return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Takes the anchor and then the map file away, so that the service makes new ones. Never the other
// way round: an old anchor over a new map file is what the service takes for a good chain.
static enum guard_status start_over(struct guarded_map *map) {
    clear_anchor();
    const struct initial_block_header cleared = {};
    const int error = -store_anchor(&cleared);
    if (error != 0) {
        guard_error("the anchor cannot be cleared, the map file stays: %s\n", strerror(error));
        return guard_cannot_look;
    }
    if (map->file != -1 && (!is_still_at_its_path(map) || unlink(map->path) != 0)) {
        // The service makes it anew, since it has no anchor.
        guard_error("cannot delete %s: %s\n", map->path, strerror(errno));
        return guard_done;
    }
    guard_error("anchor and map file are gone, the service makes new ones: %s\n", map->path);
    return guard_done;
}

// The service goes by the file. The next start finds nothing pending.
static enum guard_status leave_dump_to_service() {
    guard_error("the map file holds the pending dump: it is left to the service\n");
    return guard_done;
}

// Puts right a map file that is not the pending dump's: the dump is saved, then all made anew.
static enum guard_status save_and_start_over(struct guarded_map *map,
                                             const struct chain_links *walked) {
    const enum copied_dump copied =
        walked->fault == nullptr ? dump_is_not_copied : find_copied_dump(map, walked);
    if (copied == dump_is_copied) {
        return leave_dump_to_service();
    }
    const enum copied_dump begun =
        walked->position == 0 ? find_dump_at_beginning(map) : dump_is_not_copied;
    if (walked->unreadable || copied == dump_cannot_be_looked_for ||
        begun == dump_cannot_be_looked_for) {
        // It may be read at another start, or from an image: nothing is touched until then.
        guard_error("the pending dump cannot be read: it stays, and nothing is started: %s\n",
                    walked->unreadable ? walked->fault : "the map file");
        return guard_refuses;
    }
    if (copied == dump_may_be_copied) {
        // Somebody has to choose between the links, which break off, and the file.
        guard_error("the map file may hold the pending dump: it stays, and nothing is started\n");
        return guard_refuses;
    }
    if (begun == dump_is_copied) {
        // The service needs neither CRCs nor the anchor's other fields to find it.
        guard_error("the map file begins with a dump: it is left to the service\n");
        return guard_done;
    }
    if (walked->position == 0) {
        guard_error("the pending dump is lost: its first block cannot be found\n");
    } else if (!rescue_dump(&map->anchor, &map->device, walked->position, map->path)) {
        return guard_refuses;
    }
    return start_over(map);
}

static enum guard_status put_right(struct guarded_map *map) {
    // A slip on the command line must not cost the anchor, or somebody else's file.
    const size_t length = strlen(map_directory);
    if (strncmp(map->path, map_directory, length) != 0 ||
        strchr(map->path + length, '/') != nullptr) {
        guard_error("nothing is changed: %s is not in %s\n", map->path, map_directory);
        return guard_cannot_look;
    }
    const struct chain_links walked = walk_old_chain(map);
    return is_dump_pending(map->anchor.flags) ? save_and_start_over(map, &walked) : start_over(map);
}

enum guard_status guard_chain(const char *map_path, bool every_header) {
    char seen[property_value_max];
    const bool first_in_boot = property_get("vendor.tarnix.chain", seen, "") == 0;
    struct guarded_map map = {};
    map.file = -1;
    if (MISC_read_RamdumpInitHdr(&map.anchor) != 0) {
        guard_error("cannot look: misc cannot be opened\n");
        return guard_cannot_look;
    }
    if (!is_initial_block_header(&map.anchor)) {
        guard_info("no chain to guard\n");
        publish("none");
        return guard_done;
    }
    if (open_guarded_map(map_path, &map) != 0) {
        return guard_cannot_look;
    }
    switch (compare(&map, every_header)) {
        case chain_matches:
            if (!is_still_at_its_path(&map)) {
                guard_error("cannot look: %s: %s\n", map.path, strerror(errno));
                return is_dump_pending(map.anchor.flags) ? guard_refuses : guard_cannot_look;
            }
            publish("good");
            pin_map_file(map.file, first_in_boot);
            return guard_done;
        case chain_has_bad_header: {
            const enum guard_status status =
                is_dump_pending(map.anchor.flags) ? leave_dump_to_service() : put_right(&map);
            publish("broken");  // wherever the header is
            return status;
        }
        case chain_differs:
            return put_right(&map);
        case chain_disputed:
        case chain_cannot_be_compared:
            break;
    }
    return guard_cannot_look;
}
