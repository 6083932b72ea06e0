#include <fmt/format.h>

#include "chain/format/initial_block_header.h"
#include "tools/chain_access.h"
#include "tools/chain_json.h"
#include "tools/commands.h"
#include "tools/dump_reader.h"
#include "tools/progress_bar.h"
#include "tools/safe_name.h"

struct chain_status {
    struct chain_finding finding;
    uint32_t runs;
    bool has_stream;  // the geometry is sound enough to look for files
    struct dump_reading dump;
    std::vector<struct dump_file> files;
};

static bool is_pending(const struct chain_status &status) {
    return is_dump_pending(status.finding.walk.flags);
}

static struct chain_status examine(struct disk_image *image) {
    struct chain_status status = {};
    struct bootside boot = {};
    status.finding.result = open_chain(image, &boot);
    status.finding.walk = boot.walk;
    status.runs = boot.runs;
    struct bootside_walk walk;
    status.has_stream = start_reading(image, &walk) == bootside_ok;
    if (!status.has_stream) {
        return status;
    }
    struct dump_sink sink;
    sink.end = [&](const struct dump_file &file) {
        status.files.push_back(file);
        return true;
    };
    progress_begin(image, "reading", bytes_to_read(*image, walk));
    status.dump = read_dump_stream(&walk, sink);
    progress_end(image);
    return status;
}

static const char *describe_dump(const struct chain_status &status) {
    if (is_pending(status)) {
        return status.files.empty() ? "announced, but there is none in the chain"
                                    : "waits for the device";
    }
    return status.files.empty() ? "none: the chain has not been used yet"
                                : "an old one, its flag is not set: either the device has "
                                  "extracted it, or a later\n             write failed midway; no "
                                  "file of it is known to be whole";
}

// What to do next, or nothing when the device does the rest.
static std::string advice(const struct disk_image &image, const struct chain_status &status) {
    if (status.finding.result != bootside_ok) {
        return next_step(image, status.finding);
    }
    if (is_pending(status)) {
        return "";
    }
    return status.files.empty()
               ? "if a dump was expected, look at what the boot side printed, then at the device's "
                 "log, tag tarnix_v3"
               : "if a dump was expected, look for it on the device, in /data/vendor/ramdump; if "
                 "it "
                 "is not there, pull saves this one";
}

static void print_files(const struct chain_status &status) {
    fmt::print("dump         {}\n", describe_dump(status));
    for (const struct dump_file &file : status.files) {
        fmt::print("  {:<20} {:>14}{}\n", safe_name(file.name), file.size,
                   file.present < file.size
                       ? fmt::format("  CUT SHORT: {} bytes are there", file.present)
                   : file.size == 0 ? "  EMPTY: ends the dump"
                   : file.doubted   ? "  IN DOUBT: from behind a wrong link"
                                    : "");
    }
    if (status.dump.too_many) {
        fmt::print("  and more: this is no dump that a device makes\n");
    }
}

static void print_text(const struct disk_image &image, const struct chain_status &status) {
    const struct bootside_walk &walk = status.finding.walk;
    fmt::print("state        {}\n", describe_state(status.finding));
    if (has_anchor(status.finding)) {
        fmt::print("flags        {:#x}\nseed         {:#010x}\nfirst block  {}\n", walk.flags,
                   walk.seed, walk.first_block);
        fmt::print("size         {} of {} bytes, {} bytes\n", counted(walk.n_blocks, "block"),
                   walk.block_length, uint64_t{walk.n_blocks} * walk.block_length);
        fmt::print("runs         {}{}\n", status.runs,
                   status.finding.result == bootside_ok ? "" : " up to the fault");
    }
    fmt::print("chain        {}\n", describe_verdict(image, status.finding));
    const std::string next = advice(image, status);
    if (!next.empty()) {
        fmt::print("next         {}\n", next);
    }
    if (status.has_stream) {
        print_files(status);
    }
}

static void print_as_json(const struct disk_image &image, const struct chain_status &status) {
    nlohmann::json out = chain_json(image, status.finding);
    const std::string next = advice(image, status);
    if (!next.empty()) {
        out["next"] = next;
    }
    if (has_anchor(status.finding)) {
        out["runs"] = status.runs;
    }
    if (status.has_stream) {
        nlohmann::json files = nlohmann::json::array();
        for (const struct dump_file &file : status.files) {
            files.push_back(file_json(file));
        }
        out["dump"] = {{"pending", is_pending(status)},
                       {"whole", is_pending(status) && dump_is_whole(status.dump)},
                       {"files", files}};
    }
    print_json(out);
}

int status_command(struct disk_image *image, bool json) {
    const struct chain_status status = examine(image);
    if (json) {
        print_as_json(*image, status);
    } else {
        print_text(*image, status);
    }
    return status.finding.result == bootside_read_failed ? exit_unreadable : exit_good;
}
