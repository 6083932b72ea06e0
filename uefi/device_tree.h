// What the flattened device tree says of memory that is reserved: the nodes below /reserved-memory.
#ifndef TARNIX_UEFI_DEVICE_TREE_H
#define TARNIX_UEFI_DEVICE_TREE_H

#include <stddef.h>
#include <stdint.h>

struct memory_range {
    uint64_t start, size;  // bytes
};

// Counts of 0: there is none. More of a kind than there is room for are left out.
struct reserved_memory {
    struct memory_range nodes[32];  // all of them, the others' too
    size_t node_count;
    struct memory_range logs[4];  // compatible "ramoops": the console or log of the crashed system
    size_t log_count;
    struct memory_range crash_page;  // compatible "tarnix,crash-page"; size 0: none
};

// `tree`: the firmware's, or null. A tree that is damaged gives what was found up to there.
struct reserved_memory find_reserved_memory(const void *tree);

#endif
