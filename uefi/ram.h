// What the firmware's memory map says: where the RAM lies, and what of it the firmware has taken.
#ifndef TARNIX_UEFI_RAM_H
#define TARNIX_UEFI_RAM_H

#include "uefi/device_tree.h"
#include "uefi/efi.h"

// The map, in order of address, ranges of one type side by side made one.
struct memory_map {
    struct efi_memory_descriptor *entries;
    size_t count;
};

// Returns false when the firmware gives none. Taken after the last allocation, it tells of all.
bool memory_map_read(struct memory_map *map);

// A word for the type, for people.
const char *memory_type_name(uint32_t type);

// The RAM's regions, lowest first: what the map has as memory of any use, without holes. Memory
// that the firmware calls reserved or unusable is not in them, since it may be forbidden to read.
// Returns how many there are; `most` of them are stored.
size_t ram_regions(const struct memory_map *map, struct memory_range *regions, size_t most);

// Firmware's memory that the crashed system could have used, as it lies in no reserved node: what
// the system had there is lost. Returns the number of such ranges, and stores the first.
size_t ram_taken_by_firmware(const struct memory_map *map, const struct reserved_memory *reserved,
                             struct memory_range *first);

// Takes what is free in the reserved nodes, so that neither the system's image nor its first data
// are put there: a loader goes by the firmware's map, and does not know of the nodes.
void ram_keep_reserved(const struct reserved_memory *reserved);

#endif
