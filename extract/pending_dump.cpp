#include "extract/pending_dump.h"

#include "chain/format/initial_block_header.h"
#include "config/log.h"
#include "config/properties.h"
#include "extract/dump_directory.h"
#include "extract/dump_stream.h"
#include "extract/permissions.h"
#include "partitions/partition_items.h"

int begin_extraction(const struct initial_block_header *anchor) {
    log_error("%s start parsing ramdump (flag = 0x%x)\n", "main", anchor->flags);
    (void)property_set("debug.qor.tarnix", "running");
    const int status = config_ramdump_path();
    if (status < 0) {
        log_error("%s: config_ramdump_path error\n", "main");
    }
    return status;
}

void finish_extraction(struct initial_block_header *anchor, const char *map_path) {
    // The files before the flag: a power cut in between leaves the dump pending, not lost.
    sync_dump_files();
    // The whole word: the boot side's other bits go too.
    anchor->flags = initial_block_header_ready;
    (void)MISC_write_RamdumpInitHdr(anchor);
    log_error("%s: grant permission to ramdump files: %s, %s\n", "main", permission_path, map_path);
    _chmod(permission_path);
    log_error("%s: grant permission to ramdump files finished\n", "main");
    (void)property_set("debug.qor.tarnix", "done");
}
