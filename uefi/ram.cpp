#include "uefi/ram.h"

#include "uefi/firmware.h"

static struct efi_memory_descriptor entry_at(const unsigned char *raw, size_t index, size_t size) {
    struct efi_memory_descriptor entry;
    __builtin_memcpy(&entry, raw + index * size, sizeof(entry));
    return entry;
}

static uint64_t end_of(const struct efi_memory_descriptor *entry) {
    return entry->physical_start + entry->pages * efi_page_size;
}

// Keeps the entries sorted: firmware may give them in any order.
static void insert(struct memory_map *map, const struct efi_memory_descriptor *entry) {
    size_t at = map->count++;
    for (; at > 0 && map->entries[at - 1].physical_start > entry->physical_start; --at) {
        map->entries[at] = map->entries[at - 1];
    }
    map->entries[at] = *entry;
}

static void join_neighbours(struct memory_map *map) {
    size_t last = 0;
    for (size_t i = 1; i < map->count; ++i) {
        struct efi_memory_descriptor *before = &map->entries[last];
        const struct efi_memory_descriptor *entry = &map->entries[i];
        if (before->type == entry->type && end_of(before) == entry->physical_start) {
            before->pages += entry->pages;
        } else {
            map->entries[++last] = *entry;
        }
    }
    map->count = last + 1;
}

bool memory_map_read(struct memory_map *map) {
    size_t size = 0;
    size_t key;
    size_t entry_size = 0;
    uint32_t version;
    firmware->boot->get_memory_map(&size, nullptr, &key, &entry_size, &version);
    size += 16 * entry_size;  // the two allocations here may split entries
    auto *raw = static_cast<unsigned char *>(allocate(size));
    map->entries = static_cast<struct efi_memory_descriptor *>(allocate(size));
    map->count = 0;
    if (raw == nullptr || map->entries == nullptr ||
        firmware->boot->get_memory_map(&size, raw, &key, &entry_size, &version) != 0 ||
        size < entry_size) {
        return false;
    }
    for (size_t i = 0; i < size / entry_size; ++i) {
        const struct efi_memory_descriptor entry = entry_at(raw, i, entry_size);
        insert(map, &entry);
    }
    join_neighbours(map);
    return true;
}

const char *memory_type_name(uint32_t type) {
    static const char *const names[] = {
        "reserved",  "loader code",  "loader data",       "boot code",
        "boot data", "runtime code", "runtime data",      "free",
        "unusable",  "ACPI tables",  "ACPI non-volatile", "device"};
    return type < sizeof(names) / sizeof(names[0]) ? names[type] : "other";
}

static bool is_ram(uint32_t type) {
    return type != efi_reserved_memory && type != efi_unusable_memory &&
           type < efi_memory_mapped_io;
}

size_t ram_regions(const struct memory_map *map, struct memory_range *regions, size_t most) {
    size_t count = 0;
    uint64_t end = 0;
    for (size_t i = 0; i < map->count; ++i) {
        const struct efi_memory_descriptor *entry = &map->entries[i];
        if (!is_ram(entry->type)) {
            continue;
        }
        if (count == 0 || entry->physical_start != end) {
            ++count;
            if (count <= most) {
                regions[count - 1] = {entry->physical_start, 0};
            }
        }
        if (count <= most) {
            regions[count - 1].size += entry->pages * efi_page_size;
        }
        end = end_of(entry);
    }
    return count;
}

// The first address from `start` on that is in no node, at most `end`.
static uint64_t skip_reserved(const struct reserved_memory *reserved, uint64_t start,
                              uint64_t end) {
    for (size_t i = 0; i < reserved->node_count && start < end;) {
        const struct memory_range *node = &reserved->nodes[i];
        if (node->start <= start && start - node->start < node->size) {
            start = node->start + node->size;
            i = 0;  // nodes may touch, in any order
        } else {
            ++i;
        }
    }
    return start < end ? start : end;
}

size_t ram_taken_by_firmware(const struct memory_map *map, const struct reserved_memory *reserved,
                             struct memory_range *first) {
    size_t count = 0;
    for (size_t i = 0; i < map->count; ++i) {
        const struct efi_memory_descriptor *entry = &map->entries[i];
        if (!is_ram(entry->type) || entry->type == efi_conventional_memory) {
            continue;
        }
        const uint64_t start = skip_reserved(reserved, entry->physical_start, end_of(entry));
        if (start < end_of(entry) && ++count == 1) {
            *first = {start, end_of(entry) - start};
        }
    }
    return count;
}

// Returns whether the firmware has given all of it.
static bool take_free_reserved(const struct memory_map *map,
                               const struct reserved_memory *reserved) {
    bool all = true;
    for (size_t i = 0; i < map->count * reserved->node_count; ++i) {
        const struct efi_memory_descriptor *entry = &map->entries[i / reserved->node_count];
        const struct memory_range *node = &reserved->nodes[i % reserved->node_count];
        const uint64_t end = end_of(entry);
        const uint64_t node_end = node->start + node->size;
        uint64_t start = node->start > entry->physical_start ? node->start : entry->physical_start;
        const uint64_t stop = node_end < end ? node_end : end;
        if (entry->type == efi_conventional_memory && start < stop) {
            all = firmware->boot->allocate_pages(efi_allocate_address, efi_loader_data,
                                                 (stop - start) / efi_page_size, &start) == 0 &&
                  all;
        }
    }
    return all;
}

void ram_keep_reserved(const struct reserved_memory *reserved) {
    // While it gives memory, the firmware takes some for itself, and a range that was free is so no
    // more in one piece. What it refuses each time is kept for a type of its own: it refuses it to
    // the system's loader too.
    const int most_turns = 3;
    struct memory_map map;
    for (int turn = 0; turn < most_turns && memory_map_read(&map); ++turn) {
        if (take_free_reserved(&map, reserved)) {
            return;
        }
    }
}
