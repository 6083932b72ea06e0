// What stands before each file's data in the dump stream.
//
//   offset  width  field     meaning
//        0      4  magic     dump_file_header_magic; anything else marks the end of the dump
//        4     20  name      file name, at most 19 characters and a NUL
//       24      8  size      number of data bytes that follow, at least 1
//       32      8  reserved  written as 0, never read
//       40   size  data      runs on across as many blocks as it needs
//
// Where in a payload a header may stand: dump_layout.h.
#ifndef TARNIX_CHAIN_FORMAT_DUMP_FILE_HEADER_H
#define TARNIX_CHAIN_FORMAT_DUMP_FILE_HEADER_H

#include "chain/format/record_layout.h"

struct dump_file_header {
    uint32_t magic;
    char name[20];
    uint64_t size;
    uint64_t reserved;
};

require_layout(sizeof(struct dump_file_header) == 40);
require_layout(offsetof(struct dump_file_header, magic) == 0);
require_layout(offsetof(struct dump_file_header, name) == 4);
require_layout(offsetof(struct dump_file_header, size) == 24);
require_layout(offsetof(struct dump_file_header, reserved) == 32);

// The bytes 46 31 4c 65: "F1Le".
static const uint32_t dump_file_header_magic = 0x654c3146;

// Characters of the longest name that a boot side may write: the field less its NUL.
static const uint32_t dump_file_longest_name =
    offsetof(struct dump_file_header, size) - offsetof(struct dump_file_header, name) - 1;

// Characters of the longest name that a reader may find. A name without a NUL in its 20 bytes goes
// on into the rest of the header, and ends at the header's end at the latest.
static const uint32_t dump_file_longest_name_found =
    sizeof(struct dump_file_header) - offsetof(struct dump_file_header, name);

// The device puts its dump directory before the name, and cuts the path at so many characters.
static const uint32_t dump_file_longest_path = 63;

#endif
