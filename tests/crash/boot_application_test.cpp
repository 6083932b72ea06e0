// What the boot application makes of the firmware's memory map and of the device tree, on this
// machine: neither may lead it astray.
#include <endian.h>
#include <gtest/gtest.h>
#include <string.h>

#include <list>
#include <vector>

#include "tests/support/files.h"
#include "uefi/firmware.h"
#include "uefi/ram.h"

struct efi_system_table *firmware;

using ranges = std::vector<std::pair<uint64_t, uint64_t>>;  // start and size

static ranges ranges_of(const memory_range *first, size_t count, uint64_t unit) {
    ranges found;
    for (size_t i = 0; i < count; ++i) {
        found.emplace_back(first[i].start / unit, first[i].size / unit);
    }
    return found;
}

static constexpr uint64_t page = efi_page_size;
static const efi_memory_descriptor entries[] = {
    {efi_unusable_memory, 0, 48 * page, 0, 1, 0},
    {efi_conventional_memory, 0, 27 * page, 0, 5, 0},
    {efi_reserved_memory, 0, 32 * page, 0, 8, 0},
    {efi_memory_mapped_io, 0, 60 * page, 0, 8, 0},
    {efi_acpi_nvs_memory, 0, 42 * page, 0, 6, 0},
    {efi_boot_services_data, 0, 16 * page, 0, 4, 0},
    {efi_runtime_services_code, 0, 40 * page, 0, 2, 0},
    {efi_conventional_memory, 0, 24 * page, 0, 3, 0},
    {efi_conventional_memory, 0, 20 * page, 0, 4, 0},
};

static efi_status get_memory_map(size_t *size, void *map, size_t *, size_t *entry_size,
                                 uint32_t *) {
    *entry_size = sizeof(entries[0]);
    *size = sizeof(entries);
    if (map != nullptr) {
        memcpy(map, entries, sizeof(entries));
    }
    return 0;
}

static ranges kept;  // by their addresses, in pages

static efi_status allocate_pages(uint32_t how, uint32_t, size_t pages, uint64_t *address) {
    static std::list<std::string> memory;
    if (how == efi_allocate_address) {
        kept.emplace_back(*address / page, pages);
    } else {
        *address = reinterpret_cast<uint64_t>(memory.emplace_back(pages * page, '\0').data());
    }
    return 0;
}

TEST(memory_map, in_any_order_gives_regions_what_the_firmware_took_and_what_is_kept_from_it) {
    efi_boot_services services = {};
    services.get_memory_map = get_memory_map;
    services.allocate_pages = allocate_pages;
    efi_system_table table = {};
    table.boot = &services;
    firmware = &table;
    memory_map map;
    ASSERT_TRUE(memory_map_read(&map));
    memory_range regions[2] = {};
    EXPECT_EQ(ram_regions(&map, regions, 1), 2U);
    EXPECT_EQ(ranges_of(regions, 2, page), (ranges{{16, 16}, {0, 0}}));
    ram_regions(&map, regions, 2);
    EXPECT_EQ(ranges_of(regions, 2, page), (ranges{{16, 16}, {40, 8}}));

    const struct {
        ranges nodes;
        size_t taken;
        ranges first_taken, kept;
    } rows[] = {
        {{}, 3, {{16, 4}}, {}},
        // Two that touch hold a range that neither holds.
        {{{42, 6}, {15, 8}, {38, 4}}, 0, {{0, 0}}, {{20, 3}}},
        {{{16, 3}, {40, 8}}, 1, {{19, 1}}, {}},  // one page short
        {{{26, 100}}, 1, {{16, 4}}, {{26, 6}}},
    };
    for (const auto &row : rows) {
        reserved_memory reserved = {};
        for (const auto &[start, size] : row.nodes) {
            reserved.nodes[reserved.node_count++] = {start * page, size * page};
        }
        memory_range first = {};
        EXPECT_EQ(ram_taken_by_firmware(&map, &reserved, &first), row.taken);
        EXPECT_EQ(ranges_of(&first, 1, page), row.first_taken);
        kept.clear();
        ram_keep_reserved(&reserved);
        EXPECT_EQ(kept, row.kept);
    }
}

static std::string big_endian(size_t number) {
    return bytes_of(htobe32(static_cast<uint32_t>(number)));
}

// phone.dts twice, with the second one's structure, so that it is what a cut hits. dtc begins it at
// byte 56.
static std::string phone_tree() {
    const std::string once = read_file("phone.dtb");
    std::string tree = once + once;
    return tree.replace(4, 8, big_endian(tree.size()) + big_endian(once.size() + 56));
}

static ranges nodes_of(const std::string &tree) {
    const std::vector<char> bytes(tree.begin(), tree.end());  // the sanitizers watch its end
    const reserved_memory found = find_reserved_memory(bytes.data());
    return ranges_of(found.nodes, found.node_count, 1);
}

TEST(device_tree, gives_the_reserved_nodes) {
    std::string tree = phone_tree();
    const reserved_memory found = find_reserved_memory(tree.data());
    EXPECT_EQ(ranges_of(found.nodes, found.node_count, 1),
              (ranges{{0x890000000, 0x100002000}, {0xa0000000, 0x4000}, {0xb0000000, 0x1000}}));
    EXPECT_EQ(ranges_of(found.logs, found.log_count, 1), (ranges{{0xa0000000, 0x4000}}));
    EXPECT_EQ(ranges_of(&found.crash_page, 1, 1), (ranges{{0xb0000000, 0x1000}}));
    EXPECT_EQ(find_reserved_memory(nullptr).node_count, 0U);
    // Without the two properties an address has two cells, a size one.
    tree.replace(tree.find("#address-cells"), 1, "x").replace(tree.find("#size-cells"), 1, "x");
    EXPECT_EQ(nodes_of(tree), (ranges{{0x890000000, 1}}));
}

TEST(device_tree, cut_short_or_damaged_is_read_no_further_than_it_goes) {
    const std::string whole = phone_tree();
    const ranges nodes = nodes_of(whole);
    for (size_t size = 40; size < whole.size(); ++size) {
        std::string cut = whole.substr(0, size);
        const ranges found = nodes_of(cut.replace(4, 4, big_endian(size)));
        EXPECT_TRUE(std::equal(found.begin(), found.end(), nodes.begin()));
    }
    for (size_t at = 8; at < whole.size(); ++at) {
        for (const char value : {'\0', '\x01', '\x02', '\x03', '\x7f', '\xff'}) {
            std::string damaged = whole;
            damaged[at] = value;
            EXPECT_LE(nodes_of(damaged).size(), 4U);
        }
    }
}
