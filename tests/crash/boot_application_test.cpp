// What the boot application makes of the firmware's memory map and of the device tree, on this
// machine: neither may lead it astray.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "uefi/firmware.h"
#include "uefi/ram.h"

struct efi_system_table *firmware;

static constexpr uint64_t page = efi_page_size;

static memory_map map_of(std::vector<efi_memory_descriptor> &entries) {
    return {entries.data(), entries.size()};
}

TEST(memory_map, gives_regions_and_what_the_firmware_took) {
    const auto entry = [](uint32_t type, uint64_t first, uint64_t pages) {
        return efi_memory_descriptor{type, 0, first * page, 0, pages, 0};
    };
    std::vector<efi_memory_descriptor> entries = {
        entry(efi_memory_mapped_io, 0, 8),    entry(efi_conventional_memory, 16, 4),
        entry(efi_boot_services_data, 20, 4), entry(efi_conventional_memory, 24, 8),
        entry(efi_reserved_memory, 32, 8),    entry(efi_runtime_services_code, 40, 2),
        entry(efi_acpi_nvs_memory, 42, 6),    entry(efi_unusable_memory, 48, 1),
    };
    const memory_map map = map_of(entries);
    memory_range regions[2] = {};
    EXPECT_EQ(ram_regions(&map, regions, 2), 2U);
    EXPECT_EQ(regions[0].start, 16 * page);
    EXPECT_EQ(regions[0].size, 16 * page);
    EXPECT_EQ(regions[1].start, 40 * page);
    EXPECT_EQ(regions[1].size, 8 * page);
    EXPECT_EQ(ram_regions(&map, regions, 1), 2U);

    struct row {
        std::vector<memory_range> nodes;  // in pages
        size_t taken;
        uint64_t first;
    };
    const std::vector<row> rows = {
        {{}, 3, 20},
        {{{20, 4}, {40, 8}}, 0, 0},
        {{{42, 6}, {16, 8}, {38, 4}}, 0, 0},  // two that touch hold a range that neither holds
        {{{20, 3}, {40, 8}}, 1, 23},          // one page short
        {{{21, 3}, {40, 8}}, 1, 20},
        {{{0, 100}}, 0, 0},
    };
    for (const row &row : rows) {
        reserved_memory reserved = {};
        for (const memory_range &node : row.nodes) {
            reserved.nodes[reserved.node_count++] = {node.start * page, node.size * page};
        }
        memory_range first = {};
        EXPECT_EQ(ram_taken_by_firmware(&map, &reserved, &first), row.taken);
        EXPECT_EQ(first.start, row.first * page);
    }
}

// A flattened tree in the making: words of the structure, and the names of properties.
struct tree {
    std::string structure, strings;
};

static std::string big_endian(std::initializer_list<uint32_t> words) {
    std::string bytes;
    for (const uint32_t word : words) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(word >> shift & 0xff);
        }
    }
    return bytes;
}

static std::string filled(std::string bytes) {
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

static void begin(tree *tree, const std::string &name) {
    tree->structure += big_endian({1}) + filled(name + '\0');
}

static void end(tree *tree) {
    tree->structure += big_endian({2});
}

static void property(tree *tree, const std::string &name, const std::string &value) {
    tree->structure += big_endian({3, static_cast<uint32_t>(value.size()),
                                   static_cast<uint32_t>(tree->strings.size())}) +
                       filled(value);
    tree->strings += name + '\0';
}

static std::string flattened(const tree &tree) {
    const auto strings_at = static_cast<uint32_t>(28 + tree.structure.size() + 4);
    const auto total = static_cast<uint32_t>(strings_at + tree.strings.size());
    return big_endian({0xd00dfeed, total, 28, strings_at, 0, 17, 16}) + tree.structure +
           big_endian({9}) + tree.strings;
}

static tree phone_tree() {
    using namespace std::string_literals;
    tree tree;
    begin(&tree, "");
    property(&tree, "#address-cells", big_endian({1}));
    begin(&tree, "memory@80000000");
    property(&tree, "reg", big_endian({0x80000000, 0x1000}));
    begin(&tree, "decoy");
    property(&tree, "reg", big_endian({0, 0x1000, 0, 0x1000}));
    end(&tree);
    end(&tree);
    begin(&tree, "reserved-memory");
    property(&tree, "#address-cells", big_endian({2}));
    property(&tree, "#size-cells", big_endian({2}));
    begin(&tree, "firmware@8,90000000");
    property(&tree, "reg", big_endian({8, 0x90000000, 1, 0x2000}));
    end(&tree);
    begin(&tree, "anywhere");
    property(&tree, "size", big_endian({0, 0x3000}));
    end(&tree);
    begin(&tree, "log");
    property(&tree, "reg", big_endian({0, 0xa0000000, 0, 0x4000}));
    property(&tree, "compatible", "ramoops\0"s);
    end(&tree);
    begin(&tree, "page");
    property(&tree, "compatible", "tarnix,crash-page\0"s);
    property(&tree, "reg", big_endian({0, 0xb0000000, 0, 0x1000}));
    end(&tree);
    end(&tree);
    end(&tree);
    return tree;
}

TEST(device_tree, gives_the_reserved_nodes) {
    const std::string bytes = flattened(phone_tree());
    const reserved_memory found = find_reserved_memory(bytes.data());
    ASSERT_EQ(found.node_count, 3U);
    EXPECT_EQ(found.nodes[0].start, 0x890000000U);
    EXPECT_EQ(found.nodes[0].size, 0x100002000U);
    ASSERT_EQ(found.log_count, 1U);
    EXPECT_EQ(found.logs[0].start, 0xa0000000U);
    EXPECT_EQ(found.logs[0].size, 0x4000U);
    EXPECT_EQ(found.crash_page.start, 0xb0000000U);
    EXPECT_EQ(find_reserved_memory(nullptr).node_count, 0U);
}

// The sanitizers watch for a read behind the end.
TEST(device_tree, cut_short_or_damaged_is_read_no_further_than_it_goes) {
    const std::string whole = flattened(phone_tree());
    for (uint32_t size = 28; size < whole.size(); ++size) {
        std::string cut = whole.substr(0, size);
        cut.replace(4, 4, big_endian({size}));
        const std::vector<char> bytes(cut.begin(), cut.end());
        EXPECT_LE(find_reserved_memory(bytes.data()).node_count, 3U);
    }
    for (size_t at = 8; at < whole.size(); ++at) {
        for (const char value : {'\0', '\x01', '\x02', '\x03', '\x7f', '\xff'}) {
            std::vector<char> bytes(whole.begin(), whole.end());
            bytes[at] = value;
            EXPECT_LE(find_reserved_memory(bytes.data()).node_count, 4U);
        }
    }
}
