#include "tools/dump_reader.h"

#include <string.h>

#include <algorithm>
#include <vector>

#include "bootside/chain_walk.h"
#include "chain/format/dump_layout.h"

// The device puts "/data/vendor/ramdump/apq/NN/", 28 characters, before the name. Only a name
// without its NUL is so long that its path is cut.
static const size_t longest_device_name = dump_file_longest_path - 28;

struct stream_state {
    const struct dump_sink *sink;
    struct dump_reading *reading;
    struct dump_file file;
    bool in_file;
};

static std::string name_in(const unsigned char *header) {
    const char *name =
        reinterpret_cast<const char *>(header) + offsetof(struct dump_file_header, name);
    const size_t reach = std::min<size_t>(dump_file_longest_name_found, longest_device_name);
    return std::string(name, strnlen(name, reach));
}

// Takes note of what the sink has answered.
static bool goes_on(struct stream_state *state, bool refused) {
    state->reading->given_up = state->reading->given_up || refused;
    return !refused;
}

// False where the sink gives up.
static bool end_file(struct stream_state *state) {
    state->file.doubted = state->reading->doubted != bootside_ok;
    if (!file_is_whole(state->file)) {
        ++state->reading->incomplete;
    }
    state->in_file = false;
    return goes_on(state, state->sink->end && !state->sink->end(state->file));
}

// Takes the header at `bytes`. False where the dump ends.
static bool begin_file(struct stream_state *state, const unsigned char *bytes) {
    struct dump_file_header header;
    memcpy(&header, bytes, sizeof(header));
    if (header.magic != dump_file_header_magic) {
        return false;
    }
    if (state->reading->files == most_files) {
        state->reading->too_many = true;
        return false;
    }
    state->file = {name_in(bytes), header.size, 0, false};
    state->in_file = true;
    ++state->reading->files;
    if (!goes_on(state, state->sink->begin && !state->sink->begin(state->file))) {
        return false;
    }
    if (header.size == 0) {
        state->reading->stopped = bootside_size_zero;
        end_file(state);
        return false;
    }
    return true;
}

// Takes one block's payload. False where the dump ends.
static bool take_payload(struct stream_state *state, const unsigned char *bytes, size_t length) {
    while (length > 0) {
        size_t taken = sizeof(struct dump_file_header);
        if (state->in_file) {
            taken = static_cast<size_t>(
                std::min<uint64_t>(length, state->file.size - state->file.present));
            if (!goes_on(state, state->sink->data && !state->sink->data(bytes, taken))) {
                return false;
            }
            state->file.present += taken;
            if (state->file.present == state->file.size && !end_file(state)) {
                return false;
            }
        } else if (!dump_file_header_fits(length)) {
            return true;  // padding
        } else if (!begin_file(state, bytes)) {
            return false;
        }
        bytes += taken;
        length -= taken;
    }
    return true;
}

// Which blocks a walk has met. Blocks of a partition of more than 1 TiB with 4096 bytes in a block
// may lie behind these; a walk that comes back there is noticed somewhat later.
static const uint32_t most_blocks_noted = 0x10000000;

// Looks for `block` from the chain's start on.
static uint32_t first_position_of(const struct bootside_walk *from, uint32_t block) {
    struct bootside_walk walk = *from;
    chain_walk_rewind(&walk);
    while (walk.position < from->position && walk.block != block &&
           chain_walk_read(&walk) == bootside_ok && chain_walk_follow(&walk) == bootside_ok) {
    }
    return walk.position;
}

// Fails where the walk stands at a block that it has met before, and notes the block.
static enum bootside_result note_block(struct bootside_walk *walk, std::vector<bool> *met) {
    const bool noted = walk->block < met->size();
    if (noted ? !(*met)[walk->block] : chain_walk_lap(walk) == 0) {
        if (noted) {
            (*met)[walk->block] = true;
        }
        return bootside_ok;
    }
    return chain_walk_fault(walk, bootside_block_twice, uint64_t{walk->block} * walk->block_length,
                            walk->position, first_position_of(walk, walk->block));
}

struct dump_reading read_dump_stream(struct bootside_walk *walk, const struct dump_sink &sink) {
    struct dump_reading reading = {};
    struct stream_state state = {&sink, &reading, {}, false};
    const size_t payload = dump_payload_size(walk->block_length);
    std::vector<bool> met(std::min(walk->data_blocks, most_blocks_noted));
    bool more = true;
    while (more && walk->position < walk->n_blocks) {
        enum bootside_result result = note_block(walk, &met);
        if (result == bootside_ok) {
            result = chain_walk_read(walk);
        }
        if (result == bootside_ok) {
            const enum bootside_result checked = chain_walk_check(walk);
            if (checked != bootside_ok && reading.doubted == bootside_ok) {
                reading.doubted = checked;
                reading.doubted_at = walk->fault;
            }
            more = take_payload(&state, walk->content + sizeof(struct block_header), payload);
            result = more ? chain_walk_follow(walk) : bootside_ok;
        }
        if (result != bootside_ok) {
            reading.stopped = result;
            reading.stopped_at = walk->fault;
            more = false;
        }
    }
    if (state.in_file) {
        end_file(&state);
    }
    return reading;
}

bool file_is_whole(const struct dump_file &file) {
    return file.present == file.size && file.size != 0 && !file.doubted;
}

bool dump_is_whole(const struct dump_reading &reading) {
    return reading.stopped == bootside_ok && reading.doubted == bootside_ok &&
           reading.incomplete == 0 && !reading.too_many && !reading.given_up && reading.files != 0;
}
