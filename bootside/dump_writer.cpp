// Writes the dump's stream into the chain.
//
// Blocks are put together in the working buffer. Those in it at one time, a stretch, follow each
// other in the chain and on the medium, and each has its header, so that one transfer writes them
// all. The headers are made from the run table. Blocks that the table had no room for are read
// back.
#include "bootside/chain_walk.h"
#include "bootside/dump_state.h"
#include "bootside/run_table.h"
#include "chain/format/initial_block_header.h"

// What the medium holds is now unknown; the state broken makes sure that the flag is never set.
static enum bootside_result give_up(struct bootside *boot, enum bootside_result result,
                                    uint64_t offset, int returned) {
    boot->state = dump_state_broken;
    return chain_walk_fault(&boot->walk, result, offset, 0, static_cast<uint32_t>(returned));
}

static enum bootside_result flush(struct bootside *boot) {
    const struct bootside_port *port = boot->walk.port;
    const int failed = port->flush(port->user);
    return failed == 0 ? bootside_ok : give_up(boot, bootside_flush_failed, 0, failed);
}

// Writes the four bytes of the flags and nothing else of the anchor. They lie in one sector, so
// after a power cut the medium has the old flags or the new ones, not a mixture.
static enum bootside_result write_flags(struct bootside *boot, uint32_t flags) {
    const struct bootside_port *port = boot->walk.port;
    const uint64_t offset =
        initial_block_header_misc_offset + offsetof(struct initial_block_header, flags);
    const int failed = port->write_misc(port->user, offset, &flags, sizeof(flags));
    if (failed != 0) {
        give_up(boot, bootside_write_failed, offset, failed);
        boot->walk.fault.in_misc = 1;
        return bootside_write_failed;
    }
    boot->walk.flags = flags;
    return flush(boot);
}

// Makes the stretch's headers from the run table: the same bytes as those that the opening walk has
// verified.
static void stage_from_table(struct bootside *boot, const struct chain_run *run,
                             uint32_t after_run) {
    struct bootside_walk *walk = &boot->walk;
    uint32_t blocks = run->blocks - boot->run_offset;
    blocks = blocks < walk->buffer_blocks ? blocks : walk->buffer_blocks;
    unsigned char *at = static_cast<unsigned char *>(walk->port->buffer);
    for (uint32_t i = 0; i < blocks; ++i, at += walk->block_length) {
        const bool ends_run = ++boot->run_offset == run->blocks;
        const uint32_t next = ends_run ? after_run : walk->block + 1;
        walk->crc = chain_walk_crc(walk->port, walk->crc, walk->block, next);
        const struct block_header header = {block_header_magic, next, walk->crc};
        __builtin_memcpy(at, &header, sizeof(header));
        ++walk->position;
        walk->block = next;
    }
    boot->stretch_blocks = blocks;
    if (boot->run_offset == run->blocks) {
        ++boot->run;
        boot->run_offset = 0;
    }
}

// Reads the stretch back from the medium, and verifies its headers once more.
static enum bootside_result stage_from_medium(struct bootside *boot) {
    struct bootside_walk *walk = &boot->walk;
    // The stretch has overwritten what the window held. Where the window ended is kept: if the
    // chain goes on just there, the next read may be longer.
    walk->window_first += walk->window_blocks;
    walk->window_blocks = 0;
    boot->stretch_blocks = 0;
    do {
        const enum bootside_result result = chain_walk_step(walk);
        if (result != bootside_ok) {
            boot->state = dump_state_broken;
            return result;
        }
        ++boot->stretch_blocks;
    } while (boot->stretch_blocks < walk->window_blocks &&
             walk->block == boot->stretch_first + boot->stretch_blocks);
    return bootside_ok;
}

static enum bootside_result stage_stretch(struct bootside *boot) {
    struct chain_run run;
    uint32_t after_run;
    boot->stretch_first = boot->walk.block;
    boot->stretch_index = 0;
    boot->stretch_at = 0;
    if (run_table_get(boot, boot->run, &run, &after_run) != 0) {
        stage_from_table(boot, &run, after_run);
        return bootside_ok;
    }
    return stage_from_medium(boot);
}

// Before the first block of a dump changes, the medium must say that no dump is pending, so that
// the flag never stands over a mixture of two. A flag that is read as clear may be clear in a cache
// only, where an earlier try has left it: so what was written before is flushed in any case.
static enum bootside_result withdraw_older_dump(struct bootside *boot) {
    const uint32_t flags = boot->walk.flags;
    return is_dump_pending(flags) ? write_flags(boot, flags & ~initial_block_header_dump_flag)
                                  : flush(boot);
}

// Writes the first `blocks` blocks of the stretch.
static enum bootside_result write_stretch(struct bootside *boot, uint32_t blocks) {
    struct bootside_walk *walk = &boot->walk;
    const struct bootside_port *port = walk->port;
    const bool first_of_dump = boot->stretch_first == walk->first_block;
    const enum bootside_result result = first_of_dump ? withdraw_older_dump(boot) : bootside_ok;
    if (result != bootside_ok) {
        return result;
    }
    const uint64_t offset = uint64_t{boot->stretch_first} * walk->block_length;
    const int failed =
        port->write_data(port->user, offset, port->buffer, size_t{blocks} * walk->block_length);
    if (failed == 0) {
        return bootside_ok;
    }
    give_up(boot, bootside_write_failed, offset, failed);
    walk->fault.position -= boot->stretch_blocks;  // the walk stands behind the stretch
    walk->fault.block = boot->stretch_first;
    return bootside_write_failed;
}

// Makes sure that stretch_index, stretch_at is a place for payload. The chain must have one left:
// the callers have compared sizes with the capacity.
static enum bootside_result make_room(struct bootside *boot) {
    if (boot->stretch_index < boot->stretch_blocks) {
        return bootside_ok;
    }
    enum bootside_result result = bootside_ok;
    if (boot->stretch_blocks != 0) {
        result = write_stretch(boot, boot->stretch_blocks);
    }
    return result == bootside_ok ? stage_stretch(boot) : result;
}

enum stream_bytes { bytes_of_caller, bytes_of_zero };

// Appends `length` bytes to the stream: those at `data`, or zeros.
static enum bootside_result put(struct bootside *boot, enum stream_bytes bytes,
                                const unsigned char *data, uint64_t length) {
    // Memory may begin at address 0. Compilers assume that nothing is there, and may drop what
    // reads it. This line hides from them what the address is.
    __asm__("" : "+r"(data));
    while (length > 0) {
        const enum bootside_result result = make_room(boot);
        if (result != bootside_ok) {
            return result;
        }
        const uint32_t room = block_payload(boot) - boot->stretch_at;
        const uint32_t piece = length < room ? static_cast<uint32_t>(length) : room;
        unsigned char *to = static_cast<unsigned char *>(boot->walk.port->buffer) +
                            size_t{boot->stretch_index} * boot->walk.block_length +
                            sizeof(struct block_header) + boot->stretch_at;
        if (bytes == bytes_of_caller) {
            __builtin_memcpy(to, data, piece);
            data += piece;
        } else {
            __builtin_memset(to, 0, piece);
        }
        length -= piece;
        boot->stream += piece;
        boot->stretch_at += piece;
        if (piece == room) {
            ++boot->stretch_index;
            boot->stretch_at = 0;
        }
    }
    return bootside_ok;
}

enum bootside_result bootside_begin_dump(struct bootside *boot, int replace) {
    if (boot->state != dump_state_opened && boot->state != dump_state_writing) {
        return bootside_out_of_order;
    }
    if (is_dump_pending(boot->walk.flags) && replace == 0) {
        return bootside_dump_pending;
    }
    chain_walk_rewind(&boot->walk);
    boot->run = 0;
    boot->run_offset = 0;
    boot->stretch_blocks = 0;
    boot->stretch_index = 0;
    boot->stream = 0;
    boot->file_left = 0;
    boot->files = 0;
    boot->state = dump_state_writing;
    return bootside_ok;
}

enum bootside_result bootside_check_file(const char *name, uint64_t size) {
    uint32_t length = 0;
    for (; name[length] != 0; ++length) {
        if (length == dump_file_longest_name) {
            return bootside_name_too_long;
        }
        if (name[length] == '/') {
            return bootside_name_not_plain;
        }
    }
    if (length == 0) {
        return bootside_name_empty;
    }
    // These two are directories: the device could not make such a file.
    if (name[0] == '.' && (length == 1 || (length == 2 && name[1] == '.'))) {
        return bootside_name_not_plain;
    }
    return size == 0 ? bootside_size_zero : bootside_ok;
}

enum bootside_result bootside_begin_file(struct bootside *boot, const char *name, uint64_t size) {
    if (boot->state != dump_state_writing) {
        return bootside_out_of_order;
    }
    if (boot->file_left != 0) {
        return bootside_data_missing;
    }
    enum bootside_result result = bootside_check_file(name, size);
    if (result != bootside_ok) {
        return result;
    }
    struct dump_file_header header = {dump_file_header_magic, {}, size, 0};
    for (uint32_t i = 0; name[i] != 0; ++i) {
        header.name[i] = name[i];
    }
    const uint64_t place = dump_file_header_place(boot->stream, block_payload(boot));
    const uint64_t data = place + sizeof(header);
    const uint64_t capacity = bootside_capacity(boot);
    if (data > capacity || size > capacity - data) {
        return bootside_does_not_fit;
    }
    result = put(boot, bytes_of_zero, nullptr, place - boot->stream);
    if (result == bootside_ok) {
        result = put(boot, bytes_of_caller, reinterpret_cast<const unsigned char *>(&header),
                     sizeof(header));
    }
    boot->file_left = size;
    ++boot->files;
    return result;
}

enum bootside_result bootside_write(struct bootside *boot, const void *data, size_t length) {
    if (boot->state != dump_state_writing) {
        return bootside_out_of_order;
    }
    if (boot->files == 0) {
        return bootside_no_file;
    }
    if (length > boot->file_left) {
        return bootside_data_excess;
    }
    boot->file_left -= length;
    return put(boot, bytes_of_caller, static_cast<const unsigned char *>(data), length);
}

// Writes zeros where the next header would stand, and on to the end of that block: the device stops
// reading there and does not see what is left of an older dump. In a full chain there is no such
// place; the device stops at the chain's end.
static enum bootside_result mark_end(struct bootside *boot) {
    const uint32_t payload = block_payload(boot);
    const uint64_t place = dump_file_header_place(boot->stream, block_payload(boot));
    const uint64_t block_end = (place / payload + 1) * payload;
    const uint64_t capacity = bootside_capacity(boot);
    return put(boot, bytes_of_zero, nullptr,
               (block_end < capacity ? block_end : capacity) - boot->stream);
}

enum bootside_result bootside_finish(struct bootside *boot) {
    if (boot->state != dump_state_writing) {
        return bootside_out_of_order;
    }
    if (boot->files == 0) {
        return bootside_no_file;
    }
    if (boot->file_left != 0) {
        return bootside_data_missing;
    }
    enum bootside_result result = mark_end(boot);
    if (result == bootside_ok) {
        result = write_stretch(boot, boot->stretch_index);
    }
    if (result == bootside_ok) {
        result = flush(boot);
    }
    if (result == bootside_ok) {
        result = write_flags(boot, boot->walk.flags | initial_block_header_dump_flag);
    }
    if (result == bootside_ok) {
        boot->state = dump_state_opened;
    }
    return result;
}
