// How fast the boot side verifies and saves on the emulated phone, beside plain reads and writes of
// the same blocks in pieces of 1 MiB, all through the firmware's Block IO. In the place of the boot
// application; prints a line a round, and starts the system.
#include "uefi/device_tree.h"
#include "uefi/firmware.h"
#include "uefi/platform.h"
#include "uefi/ram.h"
#include "uefi/storage.h"
#include "uefi/text.h"

struct efi_system_table *firmware;
efi_handle own_image;

static const int rounds = 5;
static const size_t piece = 1048576;

// As many bytes of the RAM as the chain takes, in one file, replacing what the chain holds.
static bool save(struct bootside *boot, const struct memory_range *ram) {
    const uint64_t size = bootside_capacity(boot) - 40;
    return size <= ram->size && bootside_begin_dump(boot, 1) == bootside_ok &&
           bootside_begin_file(boot, "ddr_cs0.bin", size) == bootside_ok &&
           bootside_write(boot, memory_at(ram->start), size) == bootside_ok &&
           bootside_finish(boot) == bootside_ok;
}

// The blocks from the chain's first one on, as many as it has: a few among them may be others'.
static bool read_blocks(const struct bootside *boot, unsigned char *buffer) {
    const struct bootside_port *port = boot->walk.port;
    const uint64_t length = boot->walk.block_length;
    const uint64_t size = boot->walk.n_blocks * length;
    for (uint64_t at = 0; at < size; at += piece) {
        if (port->read_data(port->user, boot->walk.first_block * length + at, buffer + at,
                            size - at < piece ? size - at : piece) != 0) {
            return false;
        }
    }
    return true;
}

static bool write_blocks(const struct bootside *boot, const unsigned char *buffer) {
    const struct bootside_port *port = boot->walk.port;
    const uint64_t length = boot->walk.block_length;
    const uint64_t size = boot->walk.n_blocks * length;
    for (uint64_t at = 0; at < size; at += piece) {
        if (port->write_data(port->user, boot->walk.first_block * length + at, buffer + at,
                             size - at < piece ? size - at : piece) != 0) {
            return false;
        }
    }
    return port->flush(port->user) == 0;
}

// What is written back is what was read before: the chain stays.
static bool measure(struct bootside *boot, const struct storage *storage,
                    const struct memory_range *ram, unsigned char *buffer) {
    const uint64_t start = now_us();
    if (bootside_open(boot, &storage->port) != bootside_ok) {
        return false;
    }
    const uint64_t verified = now_us();
    if (!read_blocks(boot, buffer)) {
        return false;
    }
    const uint64_t read = now_us();
    if (!save(boot, ram)) {
        return false;
    }
    const uint64_t saved = now_us();
    if (!write_blocks(boot, buffer)) {
        return false;
    }
    say("verify ", decimal{verified - start}, " read ", decimal{read - verified}, " save ",
        decimal{saved - read}, " write ", decimal{now_us() - saved}, " us");
    return true;
}

static void measure_all() {
    struct storage storage;
    struct bootside boot;
    struct memory_map map;
    struct memory_range ram;
    if (!storage_open(&storage) || bootside_open(&boot, &storage.port) != bootside_ok ||
        !memory_map_read(&map) || ram_regions(&map, &ram, 1) == 0) {
        return;
    }
    const size_t size = size_t{boot.walk.n_blocks} * boot.walk.block_length;
    auto *buffer = static_cast<unsigned char *>(allocate(size));
    for (int round = 0; buffer != nullptr && round < rounds; ++round) {
        if (!measure(&boot, &storage, &ram, buffer)) {
            break;
        }
    }
    release(buffer, size);
    storage_stop_watchdog();
}

extern "C" efi_status efi_main(efi_handle image, struct efi_system_table *table);

efi_status efi_main(efi_handle image, struct efi_system_table *table) {
    own_image = image;
    firmware = table;
    measure_all();
    efi_handle system = platform_load_system();
    return system == nullptr ? 1 : firmware->boot->start_image(system, nullptr, nullptr);
}
