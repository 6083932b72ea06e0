#include "tools/dump_reader.h"

#include <string.h>

#include <algorithm>

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

static void end_file(struct stream_state *state) {
    if (state->file.present < state->file.size) {
        ++state->reading->cut_short;
    }
    if (state->sink->end) {
        state->sink->end(state->file);
    }
    state->in_file = false;
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
    state->file = {name_in(bytes), header.size, 0};
    state->in_file = true;
    ++state->reading->files;
    if (state->sink->begin) {
        state->sink->begin(state->file);
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
            if (state->sink->data) {
                state->sink->data(bytes, taken);
            }
            state->file.present += taken;
            if (state->file.present == state->file.size) {
                end_file(state);
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

struct dump_reading read_dump_stream(struct bootside_walk *walk, const struct dump_sink &sink) {
    struct dump_reading reading = {};
    struct stream_state state = {&sink, &reading, {}, false};
    const size_t payload = dump_payload_size(walk->block_length);
    bool more = true;
    while (more && walk->position < walk->n_blocks) {
        enum bootside_result result = chain_walk_read(walk);
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

bool dump_is_whole(const struct dump_reading &reading) {
    return reading.stopped == bootside_ok && reading.doubted == bootside_ok &&
           reading.cut_short == 0 && !reading.too_many;
}
