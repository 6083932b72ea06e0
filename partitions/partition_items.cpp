#include "partitions/partition_items.h"

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "chain/format/initial_block_header.h"

// One item: where it lies in its partition, in bytes.
struct PartitionInfo {
    int32_t id;
    int32_t offset;
    int32_t length;
};

// Some items hold others, on purpose: 22 all of misc's, 101, 102 and 113 some of mfg's, 130 all of
// them, 210 all of board_info's.
static const struct PartitionInfo gPartitionInfo_MISC[] = {
    {1, 0, 2048},
    {2, 2048, 16},
    {3, 2080, 16},
    {4, 2192, 16},
    {5, 2208, 16},
    {6, 2224, 16},
    {7, 2240, 16},
    {8, 2360, 16},
    {9, 2376, 256},
    {10, 2676, 68},
    {11, 2744, 68},
    {12, 2812, 8},
    {13, 2824, 4},
    {14, 2836, 8},
    {15, 2844, 8},
    {16, 2852, 8},
    {17, 2860, 32},
    {18, 3136, 4},
    {19, initial_block_header_misc_offset, sizeof(struct initial_block_header)},
    {20, 3168, 4},
    {21, 4096, 64},
    {22, 0, 1048576},
    {23, 14408, 4},
};

static const struct PartitionInfo gPartitionInfo_MFG[] = {
    {101, 0, 2048},     {102, 0, 96},     {103, 36, 4},      {104, 72, 19},      {105, 4096, 28},
    {106, 12288, 6},    {107, 13312, 8},  {108, 13320, 8},   {109, 13328, 4},    {110, 16384, 64},
    {111, 16448, 4},    {112, 16496, 8},  {113, 16504, 40},  {114, 16504, 4},    {115, 16508, 4},
    {116, 16512, 32},   {117, 16544, 4},  {118, 16548, 4},   {119, 16556, 64},   {120, 32768, 13},
    {121, 32816, 16},   {122, 32976, 16}, {123, 34816, 256}, {124, 35072, 1792}, {125, 36864, 6144},
    {126, 65536, 8192}, {127, 12304, 16}, {128, 13344, 6},   {129, 18432, 27},   {130, 0, 262144},
};

static const struct PartitionInfo gPartitionInfo_BDINFO[] = {
    {201, 0, 16},  {202, 16, 4},  {203, 20, 8},   {204, 28, 16},  {205, 44, 4},
    {206, 48, 32}, {207, 80, 16}, {208, 112, 16}, {209, 128, 32}, {210, 0, 16384},
};

static const struct PartitionInfo gPartitionInfo_TOOLDIAG[] = {
    {301, 0, 1048576},
};

static const int anchor_item = 19;
static const int last_item = 301;

#define MSM_BY_NAME "/dev/block/platform/msm_sdcc.1/by-name/"
#define BOOTDEVICE_BY_NAME "/dev/block/bootdevice/by-name/"

struct item_partition {
    int first_item;
    const struct PartitionInfo *rows;
    int row_count;
    const char *device_nodes[3];  // by partition_path_choice, from 1
    uint32_t last_choice;         // how many of them the first open tries
};

#define ITEM_ROWS(table) table, sizeof(table) / sizeof((table)[0])

// In the order of their item numbers.
static const struct item_partition item_partitions[] = {
    {1,
     ITEM_ROWS(gPartitionInfo_MISC),
     {MSM_BY_NAME "misc", BOOTDEVICE_BY_NAME "misc", BOOTDEVICE_BY_NAME "misc"},
     2},
    // Some devices name this partition in capitals.
    {101,
     ITEM_ROWS(gPartitionInfo_MFG),
     {MSM_BY_NAME "mfg", BOOTDEVICE_BY_NAME "mfg", BOOTDEVICE_BY_NAME "MFG"},
     3},
    {201,
     ITEM_ROWS(gPartitionInfo_BDINFO),
     {MSM_BY_NAME "board_info", BOOTDEVICE_BY_NAME "board_info", BOOTDEVICE_BY_NAME "board_info"},
     2},
    {301,
     ITEM_ROWS(gPartitionInfo_TOOLDIAG),
     {MSM_BY_NAME "tool_diag", BOOTDEVICE_BY_NAME "tool_diag", BOOTDEVICE_BY_NAME "tool_diag"},
     2},
};
static const size_t partition_count = sizeof(item_partitions) / sizeof(item_partitions[0]);

// Which of the device nodes is used, 0 before the first open. On purpose there is one value for all
// four partitions: the first open of any of them fixes the directory for all later ones.
static uint32_t partition_path_choice;

// The open partition, from mfg_open to the transfer that closes it.
static FILE *partition_stream;

static void close_partition() {
    if (partition_stream != nullptr) {
        // The result is not looked at: the callers go on in any case, and the next run goes by what
        // the partition holds then.
        (void)fclose(partition_stream);
        partition_stream = nullptr;
    }
}

static size_t partition_of_item(int mfg_item) {
    size_t which = partition_count - 1;
    while (mfg_item < item_partitions[which].first_item) {
        --which;
    }
    return which;
}

// The row at `index`, counted from the start of a partition's table. An index past the table's end
// gives a row of the next table, and past the last table a row with id 0. The caller sees from the
// id that there is no such item.
static struct PartitionInfo row_at(size_t which, int index) {
    for (; which < partition_count; ++which) {
        if (index < item_partitions[which].row_count) {
            return item_partitions[which].rows[index];
        }
        index -= item_partitions[which].row_count;
    }
    return {0, 0, 0};
}

// Opens the partition into partition_stream and returns the path that was tried last. The first
// open of the run tries the alternatives in turn, and the last one tried stays the choice even when
// it fails; every later open tries just that one.
static const char *open_partition(const struct item_partition &partition) {
    const bool first_open = partition_path_choice == 0;
    if (first_open) {
        partition_path_choice = 1;
    }
    const char *path = partition.device_nodes[partition_path_choice - 1];
    partition_stream = fopen(path, "rb+");
    while (first_open && partition_stream == nullptr &&
           partition_path_choice < partition.last_choice) {
        ++partition_path_choice;
        path = partition.device_nodes[partition_path_choice - 1];
        partition_stream = fopen(path, "rb+");
    }
    return path;
}

int mfg_open(int mfg_item, uint32_t *offset, uint32_t *length) {
    if (mfg_item < 1 || mfg_item > last_item) {
        printf("Error: item number is out of range, %d\n", mfg_item);
        close_partition();
        return -1;
    }
    const size_t which = partition_of_item(mfg_item);
    const int index = mfg_item - item_partitions[which].first_item;
    const char *path = open_partition(item_partitions[which]);
    if (partition_stream == nullptr) {
        printf("Error: %s open failed.\n", path);
        return -1;
    }
    const struct PartitionInfo row = row_at(which, index);
    if (row.id != mfg_item) {
        printf("ID is not correct: mfg_item=%d, index=%d, id=%d\n", mfg_item, index, row.id);
        close_partition();
        return -1;
    }
    *offset = static_cast<uint32_t>(row.offset);
    *length = static_cast<uint32_t>(row.length);
    return 0;
}

static void seek_to_item(uint32_t offset) {
    // The result is not looked at, as no result of a transfer is.
    (void)fseek(partition_stream, static_cast<int32_t>(offset), SEEK_SET);
}

int mfg_emmc_read(int mfg_item, void *buf, int len) {
    uint32_t offset = 0;
    uint32_t length = 0;
    if (mfg_open(mfg_item, &offset, &length) != 0) {
        printf("Error: open partition failed, item=%d\n", mfg_item);
        return -EIO;
    }
    if (static_cast<int>(length) < len) {
        printf("Error: read data lengh too large, read_len=%d, data_len=%d\n", len,
               static_cast<int>(length));
        close_partition();
        return -EINVAL;
    }
    seek_to_item(offset);
    // A short read leaves the rest of the record as the caller had set it. The anchor's caller sets
    // zeros, which are no anchor.
    (void)!fread(buf, length, 1, partition_stream);
    close_partition();
    return 0;
}

int mfg_emmc_write(int mfg_item, const void *buf, int len) {
    uint32_t offset = 0;
    uint32_t length = 0;
    if (mfg_open(mfg_item, &offset, &length) != 0) {
        printf("Error: open partition failed, item=%d.\n", mfg_item);
        return -EIO;
    }
    if (static_cast<int>(length) < len) {
        printf("Error: write data lengh too large, write_len=%d, data_len=%d\n", len,
               static_cast<int>(length));
        close_partition();
        return -EINVAL;
    }
    seek_to_item(offset);
    (void)!fwrite(buf, length, 1, partition_stream);
    close_partition();
    return 0;
}

int mfg_emmc_sync(int mfg_item) {
    uint32_t offset = 0;
    uint32_t length = 0;
    if (mfg_open(mfg_item, &offset, &length) != 0) {
        return -EIO;
    }
    const int result = TEMP_FAILURE_RETRY(fsync(fileno(partition_stream))) == 0 ? 0 : -errno;
    close_partition();
    return result;
}

int MISC_read_RamdumpInitHdr(struct initial_block_header *hdr) {
    if (hdr == nullptr) {
        return -EINVAL;
    }
    return mfg_emmc_read(anchor_item, hdr, sizeof(*hdr));
}

int MISC_write_RamdumpInitHdr(const struct initial_block_header *hdr) {
    if (hdr == nullptr) {
        return -EINVAL;
    }
    return mfg_emmc_write(anchor_item, hdr, sizeof(*hdr));
}

int store_anchor(const struct initial_block_header *hdr) {
    int result = MISC_write_RamdumpInitHdr(hdr);
    if (result == 0) {
        result = mfg_emmc_sync(anchor_item);
    }
    struct initial_block_header stored = {};
    if (result == 0) {
        result = MISC_read_RamdumpInitHdr(&stored);
    }
    if (result == 0 && memcmp(&stored, hdr, sizeof(stored)) != 0) {
        result = -EIO;
    }
    return result;
}
