#include "uefi/storage.h"

#include "uefi/crc32.h"
#include "uefi/firmware.h"
#include "uefi/text.h"

// The kit takes a sixteenth of it for the chain's runs.
static const size_t buffer_size = 1048576;

// Seconds that one transfer of at most the buffer may take.
static const size_t transfer_limit = 30;

static void set_watchdog(size_t seconds) {
    // Numbers up to 0xffff are the firmware's own.
    firmware->boot->set_watchdog_timer(seconds, 0x10000, 0, nullptr);
}

void storage_stop_watchdog() {
    set_watchdog(0);
}

// The callbacks return 0, or the low bits of the firmware's status, or this.
static const int not_whole_blocks = -1;

static int result_of(efi_status status) {
    return status == 0 ? 0 : static_cast<int>(status & 0xffff) | 0x10000;
}

static int transfer(struct efi_block_io *disk, uint64_t offset, void *read_to,
                    const void *write_from, size_t length) {
    const uint32_t block = disk->media->block_size;
    if (offset % block != 0 || length % block != 0) {
        return not_whole_blocks;
    }
    set_watchdog(transfer_limit);
    const uint32_t media = disk->media->media_id;
    return result_of(read_to != nullptr
                         ? disk->read_blocks(disk, media, offset / block, length, read_to)
                         : disk->write_blocks(disk, media, offset / block, length, write_from));
}

static int read_data(void *user, uint64_t offset, void *buffer, size_t length) {
    return transfer(static_cast<struct storage *>(user)->data, offset, buffer, nullptr, length);
}

static int write_data(void *user, uint64_t offset, const void *data, size_t length) {
    return transfer(static_cast<struct storage *>(user)->data, offset, nullptr, data, length);
}

// Brings the block of misc that holds the bytes into storage->sector. Returns where it begins, or
// says in *failed why there is none. The anchor is inside one block of any size from 4 KiB up, and
// of 512 bytes it is in the seventh: 3184 to 3208.
static uint64_t load_sector(struct storage *storage, uint64_t offset, size_t length, int *failed) {
    const uint32_t size = storage->misc->media->block_size;
    const uint64_t start = offset / size * size;
    *failed = offset + length > start + size
                  ? not_whole_blocks
                  : transfer(storage->misc, start, storage->sector, nullptr, size);
    return start;
}

static int read_misc(void *user, uint64_t offset, void *buffer, size_t length) {
    auto *storage = static_cast<struct storage *>(user);
    int failed;
    const uint64_t start = load_sector(storage, offset, length, &failed);
    if (failed == 0) {
        __builtin_memcpy(buffer, storage->sector + (offset - start), length);
    }
    return failed;
}

static int write_misc(void *user, uint64_t offset, const void *data, size_t length) {
    auto *storage = static_cast<struct storage *>(user);
    int failed;
    const uint64_t start = load_sector(storage, offset, length, &failed);
    if (failed != 0) {
        return failed;
    }
    __builtin_memcpy(storage->sector + (offset - start), data, length);
    return transfer(storage->misc, start, nullptr, storage->sector,
                    storage->misc->media->block_size);
}

static int flush(void *user) {
    auto *storage = static_cast<struct storage *>(user);
    set_watchdog(transfer_limit);
    const int failed = result_of(storage->data->flush_blocks(storage->data));
    return failed != 0 ? failed : result_of(storage->misc->flush_blocks(storage->misc));
}

static uint32_t port_crc32(void *, uint32_t crc, const void *data, size_t length) {
    return crc32_of(crc, data, length);
}

static void connect_all_drivers() {
    size_t count = 0;
    efi_handle *handles = nullptr;
    if (firmware->boot->locate_handle_buffer(efi_locate_all_handles, nullptr, nullptr, &count,
                                             &handles) != 0) {
        return;
    }
    for (size_t i = 0; i < count; ++i) {
        firmware->boot->connect_controller(handles[i], nullptr, nullptr, 1);
    }
    firmware->boot->free_pool(handles);
}

static bool is_named(const struct efi_partition_info *info, const char *name) {
    if (info->type != efi_partition_type_gpt) {
        return false;
    }
    for (size_t i = 0; i < sizeof(info->gpt_name); i += 2, ++name) {
        if (info->gpt_name[i] != static_cast<unsigned char>(*name) || info->gpt_name[i + 1] != 0) {
            return false;
        }
        if (*name == 0) {
            return true;
        }
    }
    return false;
}

// Returns how many partitions have the name; *disk is one of them.
static size_t find_partition(const char *name, struct efi_block_io **disk) {
    size_t count = 0;
    efi_handle *handles = nullptr;
    if (firmware->boot->locate_handle_buffer(efi_locate_by_protocol, &efi_partition_info_guid,
                                             nullptr, &count, &handles) != 0) {
        return 0;
    }
    size_t found = 0;
    for (size_t i = 0; i < count; ++i) {
        auto *info = static_cast<struct efi_partition_info *>(
            protocol_of(handles[i], &efi_partition_info_guid));
        auto *block_io =
            static_cast<struct efi_block_io *>(protocol_of(handles[i], &efi_block_io_guid));
        if (info != nullptr && block_io != nullptr && is_named(info, name)) {
            *disk = block_io;
            ++found;
        }
    }
    firmware->boot->free_pool(handles);
    return found;
}

// Of two partitions with the name nobody knows which is the system's.
static bool is_alone(const char *name, size_t count) {
    if (count != 1) {
        say("nothing saved: ", decimal{count}, " partitions are named ", name);
    }
    return count == 1;
}

bool storage_open(struct storage *storage) {
    *storage = {};
    size_t misc = find_partition("misc", &storage->misc);
    size_t data = find_partition("userdata", &storage->data);
    if (misc == 0 || data == 0) {
        connect_all_drivers();
        misc = find_partition("misc", &storage->misc);
        data = find_partition("userdata", &storage->data);
    }
    if (!is_alone("misc", misc) || !is_alone("userdata", data)) {
        return false;
    }
    const struct efi_block_media *media = storage->data->media;
    storage->sector = static_cast<unsigned char *>(allocate(storage->misc->media->block_size));
    storage->port = {storage,
                     read_misc,
                     write_misc,
                     read_data,
                     write_data,
                     flush,
                     port_crc32,
                     (media->last_block + 1) * media->block_size,
                     allocate(buffer_size),
                     buffer_size};
    if (storage->sector == nullptr || storage->port.buffer == nullptr) {
        say("nothing saved: the firmware gives no memory for the buffer");
        return false;
    }
    return true;
}
