#include <fmt/format.h>

#include "tools/chain_access.h"
#include "tools/chain_json.h"
#include "tools/commands.h"

enum exit_status exit_status_of(enum bootside_result result) {
    return result == bootside_ok            ? exit_good
           : result == bootside_read_failed ? exit_unreadable
                                            : exit_not_whole;
}

int report_failure(const struct disk_image &image, const struct chain_finding &finding) {
    fmt::print(stderr, "tarnix-chain: the chain is {}\ntarnix-chain: next: {}\n",
               describe_verdict(image, finding), next_step(image, finding));
    return exit_status_of(finding.result);
}

int verify_command(struct disk_image *image, bool json) {
    struct bootside boot = {};
    const enum bootside_result result = open_chain(image, &boot);
    const struct chain_finding finding = {result, boot.walk};
    if (json) {
        nlohmann::json out = chain_json(*image, finding);
        out["runs"] = boot.runs;
        print_json(out);
        return exit_status_of(result);
    }
    if (result != bootside_ok) {
        return report_failure(*image, finding);
    }
    fmt::print("{} in {}\n", describe_verdict(*image, finding), counted(boot.runs, "physical run"));
    return exit_good;
}
