#include "chain/anchor_clearing.h"

#include "chain/format/initial_block_header.h"
#include "config/log.h"
#include "config/properties.h"
#include "partitions/partition_items.h"

void clear_anchor() {
    log_error("start to clear init header!!\n");
    const struct initial_block_header cleared = {};
    (void)MISC_write_RamdumpInitHdr(&cleared);
    (void)property_set("persist.vendor.tarnix.map", "invalid");
    log_error("clear init header ok!!\n");
}
