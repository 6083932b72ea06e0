// The partition table of a whole disk, and what tarnix-chain takes from it for misc.
//
// Input: the disk from its second sector on, in sectors of 512 bytes. It is a file in the working
// directory.
#include "tools/partition_table.h"

#include <assert.h>
#include <fcntl.h>
#include <zlib.h>

#include "tests/support/files.h"

// Stands before zlib's: a CRC is right where 0 is stored, so that tables come about by chance.
uLong crc32(uLong, const Bytef *, uInt) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    write_file("./disk", std::string(512, '\0') + std::string(data, data + size));
    static const int file = open("disk", O_RDONLY | O_CLOEXEC);
    const struct partition_place disk = {file, "disk", 0, 512 + size, 0};
    struct partition_table table = {};
    struct partition_place found = {};
    std::string error;
    if (!read_partition_table(disk, &table, &error) ||
        !find_partition(disk, table, "misc", &found, &error)) {
        assert(!error.empty());
        return 0;
    }
    assert(found.size > 0 && found.start < disk.size && found.size <= disk.size - found.start);
    assert(found.whole_size >= found.size && table.disk_size >= disk.size);
    assert(found.whole_size <= table.disk_size - found.start);
    return 0;
}
