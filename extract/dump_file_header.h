// What stands before each file's data in the dump stream.
//
//   offset  width  field     meaning
//        0      4  magic     dump_file_header_magic; anything else marks the end of the dump
//        4     20  name      file name, at most 19 characters and a NUL
//       24      8  size      number of data bytes that follow, at least 1
//       32      8  reserved  kept, never used
//       40   size  data      runs on across as many blocks as it needs
//
// All numbers are unsigned little-endian. The stream is the blocks' payloads one after another. A
// header follows the previous file's data directly, unless fewer than 40 payload bytes are left in
// that block: then those are padding and the header is at the start of the next block's payload.
#ifndef TARNIX_EXTRACT_DUMP_FILE_HEADER_H
#define TARNIX_EXTRACT_DUMP_FILE_HEADER_H

#include <stddef.h>
#include <stdint.h>

struct dump_file_header {
    uint32_t magic;
    char name[20];
    uint64_t size;
    uint64_t reserved;
};

static_assert(sizeof(struct dump_file_header) == 40, "dump_file_header is 40 bytes in the stream");
static_assert(offsetof(struct dump_file_header, magic) == 0, "layout in the stream");
static_assert(offsetof(struct dump_file_header, name) == 4, "layout in the stream");
static_assert(offsetof(struct dump_file_header, size) == 24, "layout in the stream");
static_assert(offsetof(struct dump_file_header, reserved) == 32, "layout in the stream");

// The bytes 46 31 4c 65: "F1Le".
constexpr uint32_t dump_file_header_magic = 0x654c3146;

#endif
