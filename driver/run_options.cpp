#include "driver/run_options.h"

#include <stdlib.h>
#include <unistd.h>

#include "chain/chain_crc.h"
#include "chain/map_file.h"
#include "chain/progress.h"
#include "config/ddr_size.h"
#include "config/log.h"

void help(char *argv[]) {
    // Kept as it is, though the first line lacks -a and -s, -a takes a size, and -c alone creates
    // nothing: scripts match these lines.
    log_info("usage: %s [-p] [-r <out file>] [-c <size>] [-t] [-i <crc>] <block file>\n", argv[0]);
    log_info("    -r <out file> read from raw block of <block file> to <out file>\n");
    log_info("    -c <size>     also create <block file> of size and convert\n\n");
    log_info("    -t            test block chain integrity\n");
    log_info("    -a <in file>  parsing maps to ramdump files\n");
    log_info("    -p            print progress\n");
    log_info("    -i <crc>      specify initial hex crc value\n");
    log_info("Convert between raw blocks and files.  If only <block file> parameter\n");
    log_info("is supplied, then just re-write <block file> as raw data.  <block file> must\n");
    log_info("exist, otherwise, use the -c option to create the file before\n");
    log_info("converting it.\n");
}

// Room for the RAM and another GiB. Without a RAM size one byte less than a GiB, on purpose.
static uint64_t map_size_for_ram() {
    uint64_t ddr_size = 0;
    return read_ddr_size(&ddr_size) ? ddr_size + 0x40000000 : 0x3FFFFFFF;
}

static int parse_option(int option, struct run_options *options) {
    switch (option) {
        case 'a':
            // A size, whatever the usage says: a path gives 0.
            options->create_mode = true;
            show_progress = 1;
            options->map_size = strtoull(optarg, nullptr, 10);
            return 0;
        case 'c':
            options->map_size = strtoull(optarg, nullptr, 10);
            return 0;
        case 'i':
            chain_crc = static_cast<uint32_t>(strtoul(optarg, nullptr, 16));
            return 0;
        case 'p':
            show_progress = 1;
            return 0;
        case 'r':
            options->read_mode = true;
            options->out_path = optarg;
            return 0;
        case 's':
            show_progress = 1;
            options->create_mode = true;
            options->map_size = map_size_for_ram();
            return 0;
        case 't':
            options->test_mode = true;
            return 0;
        default:
            return 2;
    }
}

int parse_options(int argc, char *argv[], struct run_options *options) {
    *options = {};
    int option = -1;
    while ((option = getopt(argc, argv, "r:c:i:a:stp")) != -1) {
        const int result = parse_option(option, options);
        if (result != 0) {
            help(argv);
            return result;
        }
    }
    if (optind < argc) {
        options->map_path = argv[optind];
        return 0;
    }
    // Not an error: a service started without a path works on the default one.
    help(argv);
    options->map_path = default_map_path;
    log_info("input_path set to %s\n", options->map_path);
    return 0;
}
