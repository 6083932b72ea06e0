#include "tools/chain_report.h"

#include <fmt/format.h>

#include <algorithm>

#include "chain/format/initial_block_header.h"

bool has_anchor(const struct chain_finding &finding) {
    return finding.result != bootside_no_anchor &&
           !(finding.result == bootside_read_failed && finding.walk.fault.in_misc != 0);
}

std::string describe_state(const struct chain_finding &finding) {
    if (!has_anchor(finding)) {
        return finding.result == bootside_read_failed ? "unreadable"
               : finding.walk.fault.found == 0        ? "cleared"
                                                      : "no chain";
    }
    return is_dump_pending(finding.walk.flags) ? "dump pending" : "ready";
}

uint64_t bytes_of_whole_copy(const struct disk_image &image, const struct chain_finding &finding) {
    const struct bootside_walk &walk = finding.walk;
    // The chain's blocks and block 0; and the block that a link names.
    uint64_t blocks = 0;
    if (finding.result == bootside_bad_block_count || finding.result == bootside_block_outside) {
        blocks = uint64_t{walk.n_blocks} + 1;
    }
    if (finding.result == bootside_block_outside) {
        blocks = std::max(blocks, uint64_t{walk.fault.found} + 1);
    }
    const uint64_t needed = blocks * walk.block_length;
    const uint64_t known = image.data.whole_size;
    if (needed <= image.data.size || (known != 0 && needed > known)) {
        return 0;
    }
    return known != 0 ? known : needed;
}

std::string counted(uint64_t count, const char *noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

// What was expected and what was found, each as its result counts it.
static std::string describe_values(enum bootside_result result,
                                   const struct bootside_fault &fault) {
    const char *format = "expected {}, found {}";
    switch (result) {
        case bootside_no_anchor:
        case bootside_bad_block_magic:
        case bootside_bad_block_crc:
            format = "expected {:#010x}, found {:#010x}";
            break;
        case bootside_bad_block_length:
            format = "expected a power of two from {0} to {2} bytes, found {1}";
            break;
        case bootside_bad_block_count:
            format = "expected 1 to {} blocks, found {}";
            break;
        case bootside_block_outside:
            format = "expected a block from 1 to {}, found {}";
            break;
        case bootside_chain_too_short:
            format = "expected {} blocks, found {}";
            break;
        case bootside_block_twice:
            format = "expected a new block at position {}, found the one of position {}";
            break;
        default:
            break;
    }
    return fmt::format(format, fault.expected, fault.found, initial_block_header_max_block_length);
}

static std::string describe_shortage(const struct disk_image &image, uint64_t whole) {
    return fmt::format("this copy is short ({} of {}{} bytes)", image.data.size,
                       image.data.whole_size != 0 ? "" : "at least ", whole);
}

std::string describe_verdict(const struct disk_image &image, const struct chain_finding &finding) {
    const enum bootside_result result = finding.result;
    if (result == bootside_ok) {
        return fmt::format("intact: {} of {} bytes", counted(finding.walk.n_blocks, "block"),
                           finding.walk.block_length);
    }
    const struct bootside_fault &fault = finding.walk.fault;
    const std::string place =
        fault.in_misc != 0 ? fmt::format("the anchor ({})", name_offset(image.misc, fault.offset))
                           : fmt::format("position {}, block {} ({})", fault.position, fault.block,
                                         name_offset(image.data, fault.offset));
    if (result == bootside_read_failed) {
        return fmt::format("unreadable at {}: {}", place, image.error);
    }
    const uint64_t whole = bytes_of_whole_copy(image, finding);
    return fmt::format("{} at {}: {}: {}",
                       whole != 0 ? "cut off: " + describe_shortage(image, whole) + ","
                       : result == bootside_no_anchor ? "missing"
                                                      : "broken",
                       place, bootside_result_text(result), describe_values(result, fault));
}

// Whether the place of the anchor in what was given as the data partition has one.
static bool are_swapped(const struct disk_image &image) {
    struct initial_block_header anchor;
    return image.port.read_data(image.port.user, initial_block_header_misc_offset, &anchor,
                                sizeof(anchor)) == 0 &&
           is_initial_block_header(&anchor);
}

// Whether the anchor makes no sense, or does not even find the chain's first block.
static bool do_not_match(const struct chain_finding &finding) {
    return finding.result == bootside_bad_block_length ||
           finding.result == bootside_bad_block_count || finding.walk.fault.position == 0;
}

std::string next_step(const struct disk_image &image, const struct chain_finding &finding) {
    if (finding.result == bootside_read_failed) {
        return "get the image from the device anew";
    }
    if (finding.result == bootside_no_anchor) {
        return are_swapped(image)
                   ? "misc and the data partition are swapped: give each with its own option"
                   : "see that misc is the device's own; if it is, start the device once, so that "
                     "tarnix builds its chain";
    }
    std::string step = "save with pull what is there";
    const bool short_copy = bytes_of_whole_copy(image, finding) != 0;
    if (short_copy) {
        step =
            "get the data partition from the device anew, whole and of the same device as misc; "
            "pull saves what this copy has";
    } else if (do_not_match(finding)) {
        step =
            "first see that misc and the data partition are of the same device and the same "
            "moment, and neither swapped nor packed; if so, " +
            step;
    }
    if (is_dump_pending(finding.walk.flags)) {
        return step + "; leave the device as it is until the dump is saved";
    }
    return short_copy ? step
                      : step +
                            "; then delete the map file on the device and let tarnix build a "
                            "new chain";
}

const char *result_key(enum bootside_result result) {
    switch (result) {
        case bootside_ok:
            return "intact";
        case bootside_read_failed:
            return "read_failed";
        case bootside_no_anchor:
            return "no_anchor";
        case bootside_bad_block_length:
            return "bad_block_length";
        case bootside_bad_block_count:
            return "bad_block_count";
        case bootside_block_outside:
            return "block_outside";
        case bootside_bad_block_magic:
            return "bad_block_magic";
        case bootside_bad_block_crc:
            return "bad_block_crc";
        case bootside_chain_too_short:
            return "chain_too_short";
        case bootside_chain_too_long:
            return "chain_too_long";
        case bootside_block_twice:
            return "block_twice";
        default:
            return "failed";
    }
}
