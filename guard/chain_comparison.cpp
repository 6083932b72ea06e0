#include "guard/chain_comparison.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "chain/block_map.h"
#include "chain/chain_crc.h"
#include "chain/format/block_header.h"
#include "chain/format/initial_block_header.h"
#include "guard/chain_extents.h"
#include "guard/device_blocks.h"
#include "guard/guard_log.h"

// One comparison on its way.
struct comparison {
    int file;
    const struct initial_block_header *anchor;
    struct device_blocks *device;
    struct chain_extents extents;
    struct block_run run;   // the blocks that are looked at
    struct block_run next;  // those that follow; no blocks behind the last run
    bool every_header;
    bool has_bad_header;  // said already
    uint64_t runs;        // found good
    uint64_t headers;     // read
    uint32_t crc;         // running CRC up to here
};

static enum chain_comparison cannot_look(const char *what) {
    guard_error("cannot look at the map file's blocks: %s: %s\n", what, strerror(errno));
    return chain_cannot_be_compared;
}

// Whether FIBMAP, too, says that file block `index` lies at `place`: 0 for no place, where one that
// is `set_aside` will do, too. ext4 gives that one away on kernels before 5.7. Where it does not,
// nothing may follow from the file system's word.
static enum chain_comparison confirm(const struct comparison *work, uint64_t index, uint64_t place,
                                     uint64_t set_aside) {
    int block = static_cast<int>(index);
    if (map_block(work->file, &block) != 0) {
        return cannot_look("FIBMAP");
    }
    const uint64_t found = static_cast<uint64_t>(block);
    if (found != place && (place != 0 || found != set_aside)) {
        guard_error(
            "block %lu of the map file lies at %lu by FIEMAP and at %d by FIBMAP: nothing is "
            "changed\n",
            index, place, block);
        return chain_disputed;
    }
    return chain_differs;
}

// The file's block `index`, at `place`, is not the chain's.
static enum chain_comparison differs(const struct comparison *work, const char *reason,
                                     uint64_t index, uint64_t place) {
    const enum chain_comparison found = confirm(work, index, place, 0);
    if (found == chain_differs) {
        guard_error("map file and chain differ at block %lu, device block %lu: %s\n", index, place,
                    reason);
    }
    return found;
}

// The blocks of `run` are not the chain's, since they have no place.
static enum chain_comparison has_no_place(const struct comparison *work,
                                          const struct block_run *run) {
    const enum chain_comparison found = confirm(work, run->index, 0, run->set_aside);
    if (found == chain_differs) {
        guard_error("map file and chain differ at block %lu: it has no place\n", run->index);
    }
    return found;
}

// Compares the header of block `i` of the run. The one that it must lead to is `next`.
static enum chain_comparison compare_header(struct comparison *work, uint64_t i, uint64_t next) {
    const uint64_t place = work->run.place + i;
    const uint8_t *bytes =
        work->every_header ? read_in_order(work->device, place) : read_alone(work->device, place);
    if (bytes == nullptr) {
        return cannot_look("read");
    }
    ++work->headers;
    struct block_header header;
    memcpy(&header, bytes, sizeof(header));
    const uint64_t index = work->run.index + i;
    if (header.magic != block_header_magic) {
        return differs(work, "bad magic", index, place);
    }
    const bool is_link_good = header.next_block == next;
    const bool is_crc_good = header.crc32 == work->crc;
    // Each of the two says where this block and the next one lie: one of them is enough.
    const bool is_in_place = is_link_good || is_crc_good;
    if (is_in_place && (is_link_good == is_crc_good || work->has_bad_header)) {
        return chain_matches;
    }
    // The next block's place is part of what was found wrong.
    enum chain_comparison found = next == 0 ? chain_differs : confirm(work, index + 1, next, 0);
    if (found == chain_differs) {
        const char *reason = !is_in_place   ? "it leads elsewhere"
                             : is_link_good ? "bad CRC"
                                            : "bad link";
        found = differs(work, reason, index, place);
    }
    if (found == chain_differs && is_in_place) {
        // The rest decides whether the service would find all of a dump.
        work->has_bad_header = true;
        return chain_matches;
    }
    return found;
}

// Compares the header of block `i` of the run, whose link is the CRC's next.
static enum chain_comparison compare_block(struct comparison *work, uint64_t i) {
    const struct block_run *run = &work->run;
    const uint64_t next = i + 1 == run->count ? work->next.place : run->place + i + 1;
    work->crc = extend_chain_crc(work->crc, run->place + i, next);
    return compare_header(work, i, next);
}

static enum chain_comparison compare_run(struct comparison *work) {
    const struct block_run *run = &work->run;
    const uint64_t last = run->count - 1;
    enum chain_comparison found = compare_block(work, 0);
    if (!work->every_header && last > 1) {
        // What stands in the headers between the ends follows from the run: only the links count.
        work->crc = extend_chain_crc_over_run(work->crc, run->place + 1, last - 1);
    }
    for (uint64_t i = work->every_header ? 1 : std::max<uint64_t>(last, 1);
         i <= last && found == chain_matches; ++i) {
        found = compare_block(work, i);
    }
    return found;
}

static enum chain_comparison compare_runs(struct comparison *work) {
    work->crc = work->anchor->crc32;
    work->runs = work->headers = 0;
    start_extents(&work->extents, work->file, work->anchor->block_length, work->anchor->n_blocks);
    if (next_run(&work->extents, &work->run) == -1) {
        return cannot_look("FIEMAP");
    }
    if (work->run.place == 0) {
        return has_no_place(work, &work->run);
    }
    if (work->run.place != work->anchor->first_block) {
        return differs(work, "the anchor leads elsewhere", 0, work->run.place);
    }
    for (int more = 1; more == 1; work->run = work->next) {
        work->next = {};
        more = next_run(&work->extents, &work->next);
        if (more == -1) {
            return cannot_look("FIEMAP");
        }
        if (more == 1 && work->next.place == 0) {
            return has_no_place(work, &work->next);
        }
        const enum chain_comparison found = compare_run(work);
        if (found != chain_matches) {
            return found;
        }
        ++work->runs;
    }
    return chain_matches;
}

enum chain_comparison compare_chain(int file, const struct initial_block_header *anchor,
                                    struct device_blocks *device, bool every_header) {
    struct stat map_stat;
    if (fstat(file, &map_stat) != 0) {
        return cannot_look("stat");
    }
    // As the chain was built: in the file's own block size, whole blocks only.
    const uint64_t block_length = static_cast<uint64_t>(map_stat.st_blksize);
    const uint64_t n_blocks = static_cast<uint64_t>(map_stat.st_size) / block_length;
    if (block_length != anchor->block_length || n_blocks != anchor->n_blocks || n_blocks == 0) {
        guard_error("the map file has %lu blocks of %lu bytes, the chain %u of %u\n", n_blocks,
                    block_length, anchor->n_blocks, anchor->block_length);
        return chain_differs;
    }
    // Every block must have its place before it is asked for.
    if (TEMP_FAILURE_RETRY(fsync(file)) != 0) {
        return cannot_look("fsync");
    }
    struct comparison work = {};
    work.file = file;
    work.anchor = anchor;
    work.device = device;
    work.every_header = every_header;
    enum chain_comparison found = compare_runs(&work);
    if (found == chain_matches && work.has_bad_header && !every_header) {
        // Where the CRC is wrong at a run's end, it says nothing of the blocks before it: an old
        // link within the run would be one that leads to other places.
        work.every_header = true;
        found = compare_runs(&work);
    }
    if (found == chain_matches && work.has_bad_header) {
        return chain_has_bad_header;
    }
    if (found == chain_matches) {
        guard_info("the chain is the map file's: %lu blocks in %lu runs, %lu headers read\n",
                   n_blocks, work.runs, work.headers);
    }
    return found;
}
