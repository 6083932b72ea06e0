#include "tools/chain_json.h"

#include <fmt/format.h>

static nlohmann::json fault_json(const struct disk_image &image,
                                 const struct chain_finding &finding) {
    const struct bootside_fault &fault = finding.walk.fault;
    return {{"partition", fault.in_misc != 0 ? "misc" : "data"},
            {"position", fault.position},
            {"block", fault.block},
            {"byte_offset", fault.offset},
            {"expected", fault.expected},
            {"found", fault.found},
            {"message", describe_verdict(image, finding)}};
}

nlohmann::json chain_json(const struct disk_image &image, const struct chain_finding &finding) {
    const struct bootside_walk &walk = finding.walk;
    nlohmann::json out = {{"state", describe_state(finding)},
                          {"verdict", result_key(finding.result)}};
    if (has_anchor(finding)) {
        out["anchor"] = {{"first_block", walk.first_block},
                         {"block_length", walk.block_length},
                         {"n_blocks", walk.n_blocks},
                         {"seed", walk.seed},
                         {"flags", walk.flags}};
    }
    if (finding.result != bootside_ok) {
        out["fault"] = fault_json(image, finding);
        out["next"] = next_step(image, finding);
    }
    const uint64_t whole = bytes_of_whole_copy(image, finding);
    if (whole != 0) {
        out["copy"] = {{"bytes", image.data.size}, {"needed", whole}};
    }
    return out;
}

nlohmann::json file_json(const struct dump_file &file) {
    return {{"name", file.name}, {"size", file.size}, {"present", file.present}};
}

void print_json(const nlohmann::json &json) {
    // Names come from the disk: they may be no UTF-8, or, as UTF-8, move a terminal's cursor.
    fmt::print("{}\n", json.dump(2, ' ', true, nlohmann::json::error_handler_t::replace));
}
