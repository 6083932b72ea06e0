// The commands of tarnix-chain, each in a file of its own. Each returns the exit status.
#ifndef TARNIX_TOOLS_COMMANDS_H
#define TARNIX_TOOLS_COMMANDS_H

#include <string>
#include <vector>

#include "tools/chain_report.h"

enum exit_status {
    exit_good = 0,
    exit_not_whole = 1,  // chain not intact, dump incomplete, or the request refused
    exit_usage = 2,
    exit_unreadable = 3  // an image or file cannot be opened, read or written
};

int status_command(struct disk_image *image, bool json);
int verify_command(struct disk_image *image, bool json);
int map_command(struct disk_image *image, bool json);

// `files` are NAME=FILE.
int write_command(struct disk_image *image, const std::vector<std::string> &files, bool replace);

struct pull_options {
    std::string directory;
    bool force;
    bool pending_only;
    bool json;
};
int pull_command(struct disk_image *image, const struct pull_options &options);

// The exit status of a command that needs the whole chain.
enum exit_status exit_status_of(enum bootside_result result);

// Prints the verdict and the next step on standard error, and returns the status that fits.
int report_failure(const struct disk_image &image, const struct chain_finding &finding);

#endif
