#include "tools/chain_report.h"

#include <fmt/format.h>

#include "chain/format/initial_block_header.h"

std::string describe_state(enum bootside_result result, const struct bootside_walk &walk) {
    if (result == bootside_read_failed && walk.fault.in_misc != 0) {
        return "unreadable";
    }
    if (result == bootside_no_anchor) {
        return walk.fault.found == 0 ? "cleared" : "no chain";
    }
    return is_dump_pending(walk.flags) ? "dump pending" : "ready";
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

std::string describe_verdict(const struct disk_image &image, enum bootside_result result,
                             const struct bootside_walk &walk) {
    if (result == bootside_ok) {
        return fmt::format("intact: {} of {} bytes", counted(walk.n_blocks, "block"),
                           walk.block_length);
    }
    const struct bootside_fault &fault = walk.fault;
    const std::string place =
        fault.in_misc != 0 ? fmt::format("the anchor ({})", name_offset(image.misc, fault.offset))
                           : fmt::format("position {}, block {} ({})", fault.position, fault.block,
                                         name_offset(image.data, fault.offset));
    if (result == bootside_read_failed) {
        return fmt::format("unreadable at {}: {}", place, image.error);
    }
    return fmt::format("{} at {}: {}: {}", result == bootside_no_anchor ? "missing" : "broken",
                       place, bootside_result_text(result), describe_values(result, fault));
}

std::string next_step(enum bootside_result result) {
    switch (result) {
        case bootside_no_anchor:
            return "start the device once, so that tarnix builds its chain";
        case bootside_bad_block_length:
        case bootside_bad_block_count:
            return "see that misc and the data partition are of the same device; if they are, "
                   "delete the map file on the device and let tarnix build a new chain";
        case bootside_read_failed:
            return "get the image from the device anew";
        case bootside_write_failed:
        case bootside_flush_failed:
            return "make room or take a copy of the image, and write again with --replace";
        case bootside_data_missing:
            return "write again, with --replace, once the file no longer changes";
        case bootside_dump_pending:
            return "save it with pull, then write with --replace";
        case bootside_does_not_fit:
            return "leave a file out, or have the device make a larger map";
        default:
            return "save with pull what is there, then delete the map file on the device and let "
                   "tarnix build a new chain";
    }
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
