#include "tools/partition_table.h"

#include <fmt/format.h>
#include <string.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>

// As UEFI lays them out on disk. Numbers are little-endian, places are sectors.
struct table_header {
    char signature[8];
    uint32_t revision;
    uint32_t header_size;
    uint32_t header_crc;  // over header_size bytes, with 0 in its own place
    uint32_t reserved;
    uint64_t own_place;
    uint64_t other_place;  // of the table's second copy
    uint64_t first_usable;
    uint64_t last_usable;
    unsigned char disk_guid[16];
    uint64_t entries_place;
    uint32_t entries;
    uint32_t entry_size;
    uint32_t entries_crc;
    uint32_t padding;  // not on disk
};
static const size_t table_header_size = 92;
static_assert(offsetof(struct table_header, padding) == table_header_size, "layout on disk");

struct table_entry {
    unsigned char type[16];  // zeros in an entry that is not used
    unsigned char guid[16];
    uint64_t first;
    uint64_t last;
    uint64_t attributes;
    uint16_t name[36];
};
static_assert(sizeof(struct table_entry) == 128, "layout on disk");

// An image file does not know its sector size; phones' disks have 4096, most others 512.
static const uint64_t sector_sizes[] = {512, 4096};

// Tables have 16 KiB as a rule. Past this it is none.
static const uint64_t largest_table = 1048576;

static uint32_t crc_of(const void *data, size_t length) {
    return static_cast<uint32_t>(
        crc32(0, static_cast<const Bytef *>(data), static_cast<uInt>(length)));
}

static bool read_bytes(const struct partition_place &disk, uint64_t offset, void *to,
                       size_t length) {
    return offset <= disk.size && length <= disk.size - offset &&
           pread(disk.fd, to, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

static bool is_header(struct table_header header, uint64_t place) {
    const uint32_t crc = header.header_crc;
    header.header_crc = 0;
    // A longer header belongs to a later revision, which nobody has made yet.
    return memcmp(header.signature, "EFI PART", 8) == 0 &&
           header.header_size == table_header_size && crc_of(&header, table_header_size) == crc &&
           header.own_place == place && header.entry_size >= sizeof(struct table_entry) &&
           uint64_t{header.entry_size} * header.entries <= largest_table;
}

static std::string ascii_name(const struct table_entry &entry) {
    std::string name;
    for (const uint16_t unit : entry.name) {
        if (unit == 0) {
            break;
        }
        name += unit < 0x80 ? static_cast<char>(unit) : '?';
    }
    return name;
}

// A sector's byte offset, or the greatest one where the number cannot be a sector's.
static uint64_t byte_of(uint64_t sector, uint64_t sector_size) {
    return sector < INT64_MAX / sector_size ? sector * sector_size : INT64_MAX;
}

static bool read_table_at(const struct partition_place &disk, uint64_t place, uint64_t sector_size,
                          struct partition_table *table) {
    struct table_header header = {};
    if (!read_bytes(disk, place * sector_size, &header, table_header_size) ||
        !is_header(header, place)) {
        return false;
    }
    std::vector<unsigned char> bytes(size_t{header.entries} * header.entry_size);
    if (!read_bytes(disk, byte_of(header.entries_place, sector_size), bytes.data(), bytes.size()) ||
        crc_of(bytes.data(), bytes.size()) != header.entries_crc) {
        return false;
    }
    // The later of its two copies is in the disk's last sector.
    const uint64_t last_sector = std::max(header.own_place, header.other_place);
    table->disk_size =
        std::max(byte_of(std::min(last_sector, UINT64_MAX - 1) + 1, sector_size), disk.size);
    table->path = disk.path;
    for (size_t at = 0; at < bytes.size(); at += header.entry_size) {
        static const unsigned char unused[16] = {};
        struct table_entry entry;
        memcpy(&entry, &bytes[at], sizeof(entry));
        if (memcmp(entry.type, unused, sizeof(unused)) != 0) {
            table->entries.push_back(
                {ascii_name(entry), byte_of(entry.first, sector_size),
                 byte_of(std::min(entry.last, UINT64_MAX - 1) + 1, sector_size)});
        }
    }
    return true;
}

bool read_partition_table(const struct partition_place &disk, struct partition_table *table,
                          std::string *error) {
    for (const uint64_t sector_size : sector_sizes) {
        if (read_table_at(disk, 1, sector_size, table)) {
            return true;
        }
    }
    for (const uint64_t sector_size : sector_sizes) {
        if (disk.size >= sector_size &&
            read_table_at(disk, disk.size / sector_size - 1, sector_size, table)) {
            return true;
        }
    }
    *error = fmt::format(
        "{} has no GPT with sectors of 512 or 4096 bytes, or it is damaged; get it anew, or give "
        "the partitions one by one with --misc and --data",
        disk.path);
    return false;
}

bool find_partition(const struct partition_place &disk, const struct partition_table &table,
                    const std::string &name, struct partition_place *found, std::string *error) {
    const auto is_named = [&](const struct partition_entry &entry) { return entry.name == name; };
    const auto count = std::count_if(table.entries.begin(), table.entries.end(), is_named);
    if (count == 0) {
        *error =
            fmt::format("{}: its GPT has no partition named {}; {}", table.path, name,
                        name == "misc" ? "misc may be on another disk: then use --misc and --data"
                                       : "--data-name gives the name of the data partition");
        return false;
    }
    if (count > 1) {
        *error = fmt::format(
            "{}: its GPT has {} partitions named {}; copy the right one into a file and use "
            "--misc and --data",
            table.path, count, name);
        return false;
    }
    const auto entry = std::find_if(table.entries.begin(), table.entries.end(), is_named);
    if (entry->end <= entry->start || entry->end > table.disk_size) {
        *error = fmt::format(
            "{}: the partition {} from byte {} to byte {} does not lie on the disk of {} bytes; "
            "its "
            "GPT is damaged or another disk's: get it anew, or use --misc and --data",
            table.path, name, entry->start, entry->end, table.disk_size);
        return false;
    }
    if (entry->start >= disk.size) {
        *error = fmt::format(
            "this copy is short ({} of {} bytes): the partition {} begins at byte {} of {}; get it "
            "from the device anew, whole",
            disk.size, table.disk_size, name, entry->start, table.path);
        return false;
    }
    *found = disk;
    found->start = entry->start;
    found->whole_size = entry->end - entry->start;
    found->size = std::min(found->whole_size, disk.size - entry->start);
    return true;
}
