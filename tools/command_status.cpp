#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "bootside/chain_walk.h"
#include "chain/format/initial_block_header.h"
#include "tools/chain_report.h"
#include "tools/commands.h"
#include "tools/dump_reader.h"
#include "tools/progress_bar.h"
#include "tools/safe_name.h"

struct chain_status {
    enum bootside_result result;
    struct bootside boot;
    bool has_stream;  // the geometry is sound enough to look for files
    struct dump_reading dump;
    std::vector<struct dump_file> files;
};

static bool has_geometry(enum bootside_result result, const struct bootside_walk &walk) {
    return result != bootside_no_anchor &&
           !(result == bootside_read_failed && walk.fault.in_misc != 0);
}

static bool is_pending(const struct chain_status &status) {
    return is_dump_pending(status.boot.walk.flags);
}

static struct chain_status examine(struct disk_image *image) {
    struct chain_status status = {};
    status.result = open_chain(image, &status.boot);
    struct bootside_walk walk;
    status.has_stream = chain_walk_start(&walk, &image->port) == bootside_ok;
    if (!status.has_stream) {
        return status;
    }
    struct dump_sink sink;
    sink.end = [&](const struct dump_file &file) { status.files.push_back(file); };
    progress_begin(image, "reading", uint64_t{walk.n_blocks} * walk.block_length);
    status.dump = read_dump_stream(&walk, sink);
    progress_end(image);
    return status;
}

static void print_files(const struct chain_status &status) {
    fmt::print("dump         {}\n", status.files.empty() ? "none in the chain"
                                    : is_pending(status) ? "waits for the device"
                                                         : "an old one, no longer pending");
    for (const struct dump_file &file : status.files) {
        fmt::print("  {:<20} {:>14}{}\n", safe_name(file.name), file.size,
                   file.present < file.size
                       ? fmt::format("  CUT SHORT: {} bytes are there", file.present)
                   : file.size == 0 ? "  EMPTY: ends the dump"
                                    : "");
    }
    if (status.dump.too_many) {
        fmt::print("  and more: this is no dump that a device makes\n");
    }
}

static void print_text(const struct disk_image &image, const struct chain_status &status) {
    const struct bootside_walk &walk = status.boot.walk;
    fmt::print("state        {}\n", describe_state(status.result, walk));
    if (has_geometry(status.result, walk)) {
        fmt::print("flags        {:#x}\nseed         {:#010x}\nfirst block  {}\n", walk.flags,
                   walk.seed, walk.first_block);
        fmt::print("size         {} of {} bytes, {} bytes\n", counted(walk.n_blocks, "block"),
                   walk.block_length, uint64_t{walk.n_blocks} * walk.block_length);
        fmt::print("runs         {}{}\n", status.boot.runs,
                   status.result == bootside_ok ? "" : " up to the fault");
    }
    fmt::print("chain        {}\n", describe_verdict(image, status.result, walk));
    if (status.result != bootside_ok) {
        fmt::print("next         {}\n", next_step(status.result));
    }
    if (status.has_stream) {
        print_files(status);
    }
}

static nlohmann::json fault_json(const struct disk_image &image,
                                 const struct chain_status &status) {
    const struct bootside_fault &fault = status.boot.walk.fault;
    return {{"partition", fault.in_misc != 0 ? "misc" : "data"},
            {"position", fault.position},
            {"block", fault.block},
            {"byte_offset", fault.offset},
            {"expected", fault.expected},
            {"found", fault.found},
            {"message", describe_verdict(image, status.result, status.boot.walk)}};
}

static void print_json(const struct disk_image &image, const struct chain_status &status) {
    const struct bootside_walk &walk = status.boot.walk;
    nlohmann::json out = {{"state", describe_state(status.result, walk)},
                          {"verdict", result_key(status.result)}};
    if (has_geometry(status.result, walk)) {
        out["anchor"] = {{"first_block", walk.first_block},
                         {"block_length", walk.block_length},
                         {"n_blocks", walk.n_blocks},
                         {"seed", walk.seed},
                         {"flags", walk.flags}};
        out["runs"] = status.boot.runs;
    }
    if (status.has_stream) {
        nlohmann::json files = nlohmann::json::array();
        for (const struct dump_file &file : status.files) {
            files.push_back({{"name", file.name}, {"size", file.size}, {"present", file.present}});
        }
        out["dump"] = {{"pending", is_pending(status)},
                       {"whole", dump_is_whole(status.dump)},
                       {"files", files}};
    }
    if (status.result != bootside_ok) {
        out["fault"] = fault_json(image, status);
    }
    // Names come from the disk: they may be no UTF-8, or, as UTF-8, move a terminal's cursor.
    fmt::print("{}\n", out.dump(2, ' ', true, nlohmann::json::error_handler_t::replace));
}

int status_command(struct disk_image *image, bool json) {
    const struct chain_status status = examine(image);
    if (json) {
        print_json(*image, status);
    } else {
        print_text(*image, status);
    }
    return status.result == bootside_read_failed ? exit_unreadable : exit_good;
}
