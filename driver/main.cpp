// tarnix: prepares a chain of raw blocks for the boot side to dump memory into, and turns such a
// dump into files. One run is a straight line from the gates to one exit status.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "chain/anchor_clearing.h"
#include "chain/block_device_lookup.h"
#include "chain/chain_crc.h"
#include "chain/chain_integrity.h"
#include "chain/chain_reader.h"
#include "chain/chain_writer.h"
#include "chain/format/initial_block_header.h"
#include "chain/map_file.h"
#include "config/dump_gates.h"
#include "config/log.h"
#include "config/properties.h"
#include "driver/run_options.h"
#include "extract/map_to_bin_files.h"
#include "extract/pending_dump.h"
#include "partitions/partition_items.h"

// What the steps of one run hand to each other.
struct run_state {
    struct run_options options;
    struct initial_block_header anchor;  // as read at the start
    bool map_valid;                      // the map file exists and has its anchor
    char resolved_path[PATH_MAX];        // the map file's real path
    const char *blkdev;                  // the block device under it
};

static void seed_chain_crc() {
    srand(static_cast<unsigned>(time(nullptr)));
    // Not a secret: the seed only keeps a new chain from verifying with an old one's headers.
    chain_crc = static_cast<uint32_t>(rand());
}

static bool can_be_read(const char *path) {
    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        return false;
    }
    (void)fclose(file);
    return true;
}

// Sees whether there is a map file with an anchor, and makes a new one when not. 0, or the negative
// result of a creation that failed.
static int prepare_map_file(struct run_state *run) {
    const char *path = run->options.map_path;
    if (can_be_read(path) && is_initial_block_header(&run->anchor)) {
        log_error("valid map file exists: %s\n", path);
        run->map_valid = true;
        return 0;
    }
    log_error("no valid map file is found (magic: 0x%x): %s, start create\n", run->anchor.magic,
              path);
    const int status = create_file(path, run->options.map_size);
    if (status < 0) {
        log_error("create_file failed\n");
        return status;
    }
    clear_anchor();
    return status;
}

// Finds the block device under the map file. 0, or the exit status 1.
static int find_device(struct run_state *run) {
    if (realpath(run->options.map_path, run->resolved_path) == nullptr) {
        log_error("failed to convert %s to absolute path: %s", run->options.map_path,
                  strerror(errno));
        return 1;
    }
    if (!load_device_fstab()) {
        return 1;
    }
    int encryptable = 0;
    int encrypted = 0;
    run->blkdev = find_block_device(run->resolved_path, &encryptable, &encrypted);
    if (run->blkdev == nullptr) {
        log_error("failed to find block device for %s", run->resolved_path);
        return 1;
    }
    log_info("  block dev: %s\n", run->blkdev);
    log_info("encryptable: %s\n", encryptable != 0 ? "yes" : "no");
    log_info("  encrypted: %s\n", encrypted != 0 ? "yes" : "no");
    log_info("initial CRC: %08x\n", chain_crc);
    return 0;
}

// Turns a pending dump into files and clears its flag, so that it is extracted once.
static int extract_dump(struct run_state *run) {
    if (!is_dump_pending(run->anchor.flags)) {
        log_error("%s: No ramdump for reading (flag = 0x%x)\n", "main", run->anchor.flags);
        return 0;
    }
    int status = begin_extraction(&run->anchor);
    if (status < 0) {
        return status;
    }
    // Always the default map file, whatever the command line names: it is the one that the boot
    // side's chain was built over when the device was set up.
    status = map_to_bin_files(default_map_path, run->blkdev);
    if (status < 0) {
        log_error("%s: parsing error\n", "main");
        return status;
    }
    finish_extraction(&run->anchor, run->resolved_path);
    return status;
}

// Builds, copies out or extracts. A new map file gets its chain first, whatever else is asked for.
// Then -r wins over an extraction: a pending dump stays pending. With -r the status is the copy's,
// also where the build before it failed; the log then has the build's error.
static int run_mode(struct run_state *run) {
    const struct run_options *options = &run->options;
    int status = 0;
    log_info("initializing block chain (i=%08x)\n", chain_crc);
    if (options->create_mode && !run->map_valid) {
        log_info("start to raw_write_blocks\n");
        status = raw_write_blocks(run->resolved_path, run->blkdev);
    }
    if (options->read_mode) {
        (void)property_set("debug.qor.tarnix", "reversing");
        status = raw_read_blocks(run->resolved_path, run->blkdev, options->out_path);
    } else if (options->create_mode && run->map_valid) {
        status = extract_dump(run);
    }
    if (status == 0) {
        log_info("Success\n");
    }
    return status;
}

int main(int argc, char *argv[]) {
    log_info("tarnix_v3 start!!\n");
    // A device that does not allow dumps is no error.
    if (!dumps_are_allowed()) {
        return 0;
    }
    seed_chain_crc();
    struct run_state run = {};
    int status = parse_options(argc, argv, &run.options);
    if (status != 0) {
        return status;
    }
    // Unreadable is as good as absent: the record stays zero, which is no anchor.
    (void)MISC_read_RamdumpInitHdr(&run.anchor);
    if (run.options.create_mode) {
        status = prepare_map_file(&run);
        if (status < 0) {
            return status;
        }
    }
    status = find_device(&run);
    if (status != 0) {
        return status;
    }
    // -t wins over every other mode. With -a or -s it comes after the making of the map file.
    if (run.options.test_mode) {
        return test_block_chain(run.options.map_path, run.blkdev, &run.anchor);
    }
    return run_mode(&run);
}
