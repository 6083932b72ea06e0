// tarnix-guard: sees that the chain is still the map file's before the service starts, and replaces
// itself by the service. What the file system, a backup or a hand has moved it puts right first.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "chain/map_file.h"
#include "config/dump_gates.h"
#include "guard/chain_guard.h"
#include "guard/guard_log.h"

struct guard_options {
    bool every_header;     // --full
    const char *map_path;  // the default one where none is named
    char *const *program;  // what follows "--", null without it
};

// False when it makes no sense; `program` is set even so, where one is named.
static bool parse_options(int argc, char *argv[], struct guard_options *options) {
    *options = {false, default_map_path, nullptr};
    int end = 1;
    while (end < argc && strcmp(argv[end], "--") != 0) {
        ++end;
    }
    if (end + 1 < argc) {
        options->program = argv + end + 1;
    }
    int paths = 0;
    for (int i = 1; i < end; ++i) {
        if (strcmp(argv[i], "--full") == 0) {
            options->every_header = true;
        } else if (argv[i][0] != '-') {
            options->map_path = argv[i];
            ++paths;
        } else {
            return false;
        }
    }
    return paths <= 1;
}

int main(int argc, char *argv[]) {
    struct guard_options options;
    enum guard_status status = guard_bad_usage;
    if (!parse_options(argc, argv, &options)) {
        guard_error("usage: tarnix-guard [--full] [MAP] [-- PROGRAM ARGUMENTS...]\n");
    } else if (!dumps_are_allowed()) {
        status = guard_done;
    } else {
        status = guard_chain(options.map_path, options.every_header);
    }
    if (status == guard_refuses || options.program == nullptr) {
        return status;
    }
    execv(options.program[0], options.program);
    guard_error("cannot start %s: %s\n", options.program[0], strerror(errno));
    return guard_cannot_start;
}
