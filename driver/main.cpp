// tarnix: prepares a chain of raw blocks for the boot side to dump memory into, and turns such a
// dump into files. One run is a straight line from the gates to one exit status.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "chain/block_device_lookup.h"
#include "chain/chain_crc.h"
#include "chain/chain_integrity.h"
#include "chain/chain_reader.h"
#include "chain/chain_writer.h"
#include "chain/format/initial_block_header.h"
#include "chain/map_file.h"
#include "config/log.h"
#include "config/properties.h"
#include "driver/run_options.h"
#include "extract/dump_directory.h"
#include "extract/dump_stream.h"
#include "extract/map_to_bin_files.h"
#include "extract/permissions.h"
#include "fs_mgr/fs_mgr_fstab.h"
#include "partitions/partition_items.h"

// What the steps of one run hand to each other.
struct run_state {
    struct run_options options;
    struct initial_block_header anchor;  // as read at the start
    bool map_valid;                      // the map file exists and has its anchor
    char resolved_path[PATH_MAX];        // the map file's real path
    const char *blkdev;                  // the block device under it
};

// A device that does not allow dumps is no error: both gates end the run with status 0.
static bool dumps_are_allowed() {
    char value[property_value_max];
    property_get("ro.sf", value, nullptr);
    if (strcmp(value, "1") == 0) {
        log_info("security on, exit\n");
        return false;
    }
    log_info("security off, continue tarnix jobs\n");

    if (property_get("ro.boot.qorramdump", value, "") == 0) {
        log_error("fail to get ro.boot.qorramdump, exit\n");
        return false;
    }
    if (strcmp(value, "1") != 0) {
        log_error("ro.boot.qorramdump (radio flag) is not enabled, exit\n");
        return false;
    }
    return true;
}

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

// Takes the old chain's anchor away, now that its blocks are no longer the map file's. The record
// in memory stays as it was read.
static void clear_anchor() {
    log_error("start to clear init header!!\n");
    const struct initial_block_header cleared = {};
    (void)MISC_write_RamdumpInitHdr(&cleared);
    (void)property_set("persist.vendor.tarnix.map", "invalid");
    log_error("clear init header ok!!\n");
}

// Sees whether there is a map file with an anchor, and makes a new one when not. Negative when it
// cannot be made.
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

// Loads the fstab named after the hardware from `directory_prefix` into device_fstab.
static bool load_fstab(const char *directory_prefix) {
    char path[4097];
    char hardware[property_value_max];
    device_fstab = nullptr;
    if (property_get("ro.hardware", hardware, "") == 0) {
        log_error("failed to get ro.hardware\n");
        return false;
    }
    snprintf(path, sizeof(path), "%s%s", directory_prefix, hardware);
    device_fstab = fs_mgr_read_fstab(path);
    if (device_fstab == nullptr) {
        log_error("failed to read %s\n", path);
        return false;
    }
    return true;
}

// Finds the block device under the map file. 0, or the exit status 1.
static int find_device(struct run_state *run) {
    if (realpath(run->options.map_path, run->resolved_path) == nullptr) {
        log_error("failed to convert %s to absolute path: %s", run->options.map_path,
                  strerror(errno));
        return 1;
    }
    if (!load_fstab("/fstab.") && !load_fstab("/vendor/etc/fstab.")) {
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
    log_error("%s start parsing ramdump (flag = 0x%x)\n", "main", run->anchor.flags);
    (void)property_set("debug.qor.tarnix", "running");
    int status = config_ramdump_path();
    if (status < 0) {
        log_error("%s: config_ramdump_path error\n", "main");
        return status;
    }
    // Always the default map file, whatever the command line names: it is the one that the boot
    // side's chain was built over when the device was set up.
    status = map_to_bin_files(default_map_path, run->blkdev);
    if (status < 0) {
        log_error("%s: parsing error\n", "main");
        return status;
    }
    // The files before the flag: a power cut in between leaves the dump pending, not lost.
    sync_dump_files();
    // The whole word: whatever else the boot side set is done with.
    run->anchor.flags = initial_block_header_ready;
    (void)MISC_write_RamdumpInitHdr(&run->anchor);
    log_error("%s: grant permission to ramdump files: %s, %s\n", "main", permission_path,
              run->resolved_path);
    _chmod(permission_path);
    log_error("%s: grant permission to ramdump files finished\n", "main");
    (void)property_set("debug.qor.tarnix", "done");
    return status;
}

// Builds, copies out or extracts. `status` is the result so far.
static int run_mode(struct run_state *run, int status) {
    const struct run_options *options = &run->options;
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
    const int failure = find_device(&run);
    if (failure != 0) {
        return failure;
    }
    if (run.options.test_mode) {
        return test_block_chain(run.options.map_path, run.blkdev, &run.anchor);
    }
    return run_mode(&run, status);
}
