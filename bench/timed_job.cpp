// One job of the tool, by itself and timed: what `tarnix` does in one run, or across runs, taken
// apart so that each job meets the caches as bench/run wants them.
//
//   timed_job create MAP SIZE            the map file's creation
//   timed_job build MAP DEVICE           the chain
//   timed_job straightforward MAP DEVICE the chain, without the look-ahead
//   timed_job test MAP DEVICE            the integrity test
//   timed_job guard MAP DEVICE           whether the chain is the map file's
//   timed_job copy MAP DEVICE OUT        the raw copy
//   timed_job extract MAP DEVICE         the pending dump
//   timed_job extract-synced MAP DEVICE  the same, up to the moment its flag may be cleared
//
// Prints, as one line of JSON, the job's seconds and the process's peak of resident memory in KiB.
#include <android-base/file.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <string>

#include "bench/straightforward_writer.h"
#include "chain/chain_integrity.h"
#include "chain/chain_reader.h"
#include "chain/chain_writer.h"
#include "chain/format/initial_block_header.h"
#include "chain/map_file.h"
#include "extract/dump_directory.h"
#include "extract/dump_stream.h"
#include "extract/map_to_bin_files.h"
#include "guard/chain_comparison.h"
#include "guard/device_blocks.h"
#include "partitions/partition_items.h"

// VmHWM, not getrusage: that one counts the process that this one was forked from as well.
static long peak_kib() {
    std::string status;
    if (!android::base::ReadFileToString("/proc/self/status", &status)) {
        return -1;
    }
    const size_t at = status.find("VmHWM:");
    return at == std::string::npos ? -1
                                   : strtol(status.c_str() + at + strlen("VmHWM:"), nullptr, 10);
}

static int run_test(const char *map, const char *device) {
    struct initial_block_header anchor = {};
    const int result = MISC_read_RamdumpInitHdr(&anchor);
    return result != 0 ? result : test_block_chain(map, device, &anchor);
}

static int run_guard(const char *map, const char *device) {
    struct initial_block_header anchor = {};
    struct device_blocks blocks = {};
    const int file = open(map, O_RDONLY);
    if (file == -1 || MISC_read_RamdumpInitHdr(&anchor) != 0 ||
        open_device_blocks(device, anchor.block_length, &blocks) != 0) {
        return -1;
    }
    return compare_chain(file, &anchor, &blocks, false) == chain_matches ? 0 : -1;
}

static int run_job(const std::string &job, char **arguments, int count) {
    const char *map = arguments[0];
    const char *second = arguments[1];
    if (job == "create") {
        return create_file(map, strtoull(second, nullptr, 10));
    }
    if (job == "build") {
        return raw_write_blocks(map, second);
    }
    if (job == "straightforward") {
        return write_straightforward(map, second);
    }
    if (job == "test") {
        return run_test(map, second);
    }
    if (job == "guard") {
        return run_guard(map, second);
    }
    if (job == "copy" && count == 3) {
        return raw_read_blocks(map, second, arguments[2]);
    }
    const int result = job.rfind("extract", 0) == 0 ? map_to_bin_files(map, second) : -1;
    if (job == "extract-synced") {
        sync_dump_files();
    }
    return result;
}

int main(int argc, char *argv[]) {
    if (argc < 4) {
        fputs("timed_job: see the head of bench/timed_job.cpp\n", stderr);
        return 2;
    }
    const std::string job = argv[1];
    // The new dump directory, and the old one's removal, are no part of the time.
    if (job.rfind("extract", 0) == 0 && config_ramdump_path() != 0) {
        return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    const int result = run_job(job, argv + 2, argc - 2);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    printf("{\"seconds\": %.6f, \"peak_kib\": %ld}\n", seconds.count(), peak_kib());
    return result == 0 ? 0 : 1;
}
