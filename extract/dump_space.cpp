#include "extract/dump_space.h"

#include <stdint.h>

#include "chain/available_space.h"
#include "config/ddr_size.h"
#include "config/log.h"

// Bytes that a dump of this device's memory may take: its RAM and 256 MiB for all else, or just
// that, less a byte, when the RAM size is unknown.
static uint64_t required_space() {
    uint64_t ddr_size = 0;
    return read_ddr_size(&ddr_size) ? ddr_size + 0x10000000 : 0xfffffff;
}

bool has_space_for_dump(const char *map_path) {
    const uint64_t available = get_directory_available_space("/data/vendor");
    if (available >= required_space()) {
        return true;
    }
    log_error(
        "Not enough space available to create ramdump file: %s, avail space: %lu, "
        "requested size: %lu\n",
        map_path, available, required_space());
    return false;
}
