// The crash side of the dump: verifies the block chain on the raw data partition, writes named
// files into its blocks, and tells the device's own tool, through the anchor in misc, that a dump
// waits.
//
// Freestanding: no library, allocation, static state, exceptions or RTTI. A port supplies the
// callbacks of bootside_port and defines memcpy, memset, memmove and memcmp, which compilers call.
// The header is C11 and C++17. The processor must be little-endian, as the records are.
//
// Order of calls: bootside_open, bootside_begin_dump, then for each file bootside_begin_file and as
// many bootside_write as wanted, then bootside_finish. Only bootside_finish
// lets the device see the dump. After a failed transfer or flush only bootside_open helps: every
// other call is refused with bootside_out_of_order.
#ifndef TARNIX_BOOTSIDE_BOOTSIDE_H
#define TARNIX_BOOTSIDE_BOOTSIDE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum bootside_result {
    bootside_ok = 0,
    // The port.
    bootside_buffer_too_small,  // expected: bytes that the working buffer needs; found: its size
    bootside_read_failed,       // found: what the callback returned
    bootside_write_failed,      // found: what the callback returned
    bootside_flush_failed,      // found: what the callback returned
    // The anchor in misc.
    bootside_no_anchor,         // expected, found: magic
    bootside_bad_block_length,  // expected: the least that is accepted; found: bytes
    bootside_bad_block_count,   // expected: the most that the partition holds; found: blocks
    // The chain on the data partition.
    bootside_block_outside,    // expected: the last block of the partition; found: the block named
    bootside_bad_block_magic,  // expected, found: magic
    bootside_bad_block_crc,    // expected: computed CRC; found: stored CRC
    bootside_chain_too_short,  // expected: blocks in the chain; found: blocks up to the last link
    bootside_chain_too_long,   // expected: 0, the last link; found: the block named instead
    bootside_block_twice,      // expected: position here; found: the position where it stood first
    // Refusals: nothing is written by the refused call, and the next call may do better.
    bootside_dump_pending,
    bootside_name_empty,
    bootside_name_too_long,
    bootside_name_not_plain,  // holds a "/", or is "." or ".."
    bootside_size_zero,
    bootside_does_not_fit,
    bootside_data_missing,  // a file was begun and its announced bytes have not all been given
    bootside_data_excess,   // more bytes than the file was announced with
    bootside_out_of_order,
    bootside_no_file  // no file was begun, or each one was refused
};

// A line about `result` for a console, without line end: never null, constant.
const char *bootside_result_text(enum bootside_result result);

// What the port supplies. The record must outlive the context that was opened with it.
//
// The transfers return 0 when all `length` bytes have been transferred, anything else is a failure.
// Those of the data partition are whole blocks of the chain at a multiple of the block length;
// those of misc are 4 or 24 bytes inside the anchor, so a port over a block device reads, changes
// and writes back the sector there.
struct bootside_port {
    void *user;  // handed to every callback
    int (*read_misc)(void *user, uint64_t offset, void *buffer, size_t length);
    int (*write_misc)(void *user, uint64_t offset, const void *data, size_t length);
    int (*read_data)(void *user, uint64_t offset, void *buffer, size_t length);
    int (*write_data)(void *user, uint64_t offset, const void *data, size_t length);
    // Returns 0 once all that was written to both partitions is on the medium. Called before the
    // first block of a dump and, in bootside_finish, before and after the flag is set.
    int (*flush)(void *user);
    // zlib's crc32: CRC-32 of IEEE 802.3, continued from `crc`, the result for earlier bytes or 0.
    uint32_t (*crc32)(void *user, uint32_t crc, const void *data, size_t length);
    uint64_t data_size;  // bytes in the data partition
    // Working memory, of any alignment but not at address 0; the kit's from bootside_open on. One
    // block is enough. From two blocks on, a part of it remembers which blocks of the chain follow
    // each other on the medium, so that they need not be read back before they are written. The
    // larger the rest, the fewer and larger the transfers: 1 MiB is plenty.
    void *buffer;
    size_t buffer_size;
};

// Where a chain fails, for the results of the first three groups above. The place of a failed
// transfer is where it began; a failed flush has none.
struct bootside_fault {
    uint32_t position;  // in the chain, from 0
    uint32_t block;     // physical block number
    uint64_t offset;    // byte offset of the wrong field in its partition
    uint32_t in_misc;   // 1: the partition is misc; 0: it is the data partition
    uint32_t expected;  // what these two mean stands at each result
    uint32_t found;
};

// The anchor, and a place in the chain. Callers write nothing in it.
struct bootside_walk {
    const struct bootside_port *port;

    // The anchor's fields.
    uint32_t first_block;
    uint32_t block_length;
    uint32_t n_blocks;
    uint32_t seed;
    uint32_t flags;

    // Whole blocks in the data partition.
    uint32_t data_blocks;

    // The block looked at: how many of the chain come before it, and its number.
    uint32_t position;
    uint32_t block;
    // The running CRC: before that block, and from chain_walk_check on after it.
    uint32_t crc;

    // That block's header and its block_length bytes, once it has been read.
    uint32_t next;
    uint32_t stored_crc;
    const unsigned char *content;

    // An earlier place of this walk. A chain that comes back is noticed when it meets it again.
    uint32_t mark_position;
    uint32_t mark_block;

    // Blocks that one transfer may have.
    uint32_t buffer_blocks;
    // The consecutive blocks that the buffer holds: the first one, and how many.
    uint32_t window_first;
    uint32_t window_blocks;
    // How many blocks the last read asked for.
    uint32_t window_wish;

    // Where the walk, or a later transfer, failed.
    struct bootside_fault fault;
};

// The context: any memory of the caller's, filled by bootside_open. Callers may read `runs`, and of
// `walk` the anchor's fields and `fault`.
struct bootside {
    struct bootside_walk walk;

    // Runs in the chain: a run is a row of blocks that follow each other on the medium too.
    uint32_t runs;
    // Runs that the table in the buffer has room for.
    uint32_t run_capacity;
    // While the table is made: the block that would carry the last run on.
    uint32_t run_next_block;
    // While a dump is written: the run that the next block is in, and its place there.
    uint32_t run;
    uint32_t run_offset;

    // What may be called now (dump_state.h).
    uint32_t state;
    // Files begun in this dump.
    uint32_t files;

    // The blocks in the buffer that wait to be written: the first one's number, and how many.
    uint32_t stretch_first;
    uint32_t stretch_blocks;
    // Where the next byte goes: which of these blocks, and the byte in its payload.
    uint32_t stretch_index;
    uint32_t stretch_at;

    // Payload bytes that this dump has so far.
    uint64_t stream;
    // Bytes that the file begun last still has to get.
    uint64_t file_left;
};

// Reads the anchor and walks the whole chain, writing nothing. bootside_ok when every block's
// magic and CRC is right, the chain has as many blocks as the anchor says, each lies inside the
// partition and none occurs twice; otherwise a result of the first three groups with walk.fault
// saying where. A chain that fails is never written to: its blocks may belong to some other file by
// now.
enum bootside_result bootside_open(struct bootside *boot, const struct bootside_port *port);

// Payload bytes of an opened chain: what the files' bytes, headers and padding have to fit in. 0
// when bootside_open has failed.
uint64_t bootside_capacity(const struct bootside *boot);

// Payload bytes that files of these sizes take in this order, headers and padding included;
// UINT64_MAX when that is more than any chain has. They fit if it is at most bootside_capacity.
uint64_t bootside_need(const struct bootside *boot, const uint64_t *sizes, size_t count);

// Whether a file of this name and size may be in a dump, as bootside_begin_file will judge it;
// looks at nothing but its arguments.
enum bootside_result bootside_check_file(const char *name, uint64_t size);

// Starts a dump on an opened chain, writing nothing. While an earlier dump waits for the device,
// this is refused with bootside_dump_pending if `replace` is 0. Else that dump is given up: its
// flag is cleared right before the first block is written. A flush always comes before that block,
// so that no flag of an earlier dump can be left on the medium over the new one's blocks.
enum bootside_result bootside_begin_dump(struct bootside *boot, int replace);

// Starts the next file. `name` has 1 to 19 characters, no "/"; `size` is the number of bytes to
// come, at least 1. Of two files with one name the device keeps the later. After a refusal,
// another file may be tried or the dump finished without it.
enum bootside_result bootside_begin_file(struct bootside *boot, const char *name, uint64_t size);

// Gives the next `length` bytes of the file begun last. `data` may be any address that can be read,
// 0 too. The bytes are copied into the buffer, which is written whenever it is full. A file once
// begun must get all its bytes, so fill up what cannot be read; the only other way out is
// bootside_begin_dump, which starts the dump over.
enum bootside_result bootside_write(struct bootside *boot, const void *data, size_t length);

// Writes what is left and the mark of the dump's end, flushes, sets the flag in the anchor,
// flushes. Needs at least one file, and all bytes of each.
enum bootside_result bootside_finish(struct bootside *boot);

#ifdef __cplusplus
}
#endif

#endif
