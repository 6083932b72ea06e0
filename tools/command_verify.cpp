#include <fmt/format.h>

#include "bootside/chain_walk.h"
#include "tools/chain_report.h"
#include "tools/commands.h"
#include "tools/progress_bar.h"

enum bootside_result open_chain(struct disk_image *image, struct bootside *boot) {
    // The anchor alone first: its length is the bar's.
    enum bootside_result result = chain_walk_start(&boot->walk, &image->port);
    if (result == bootside_ok) {
        progress_begin(image, "verifying", uint64_t{boot->walk.n_blocks} * boot->walk.block_length);
        result = bootside_open(boot, &image->port);
        progress_end(image);
    }
    return result;
}

int report_failure(const struct disk_image &image, enum bootside_result result,
                   const struct bootside_walk &walk) {
    fmt::print(stderr, "tarnix-chain: the chain is {}\ntarnix-chain: next: {}\n",
               describe_verdict(image, result, walk), next_step(result));
    return result == bootside_read_failed ? exit_unreadable : exit_not_whole;
}

int verify_command(struct disk_image *image) {
    struct bootside boot = {};
    const enum bootside_result result = open_chain(image, &boot);
    if (result != bootside_ok) {
        return report_failure(*image, result, boot.walk);
    }
    fmt::print("{} in {}\n", describe_verdict(*image, result, boot.walk),
               counted(boot.runs, "physical run"));
    return exit_good;
}
