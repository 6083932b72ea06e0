// The emulated phone, QEMU's `virt` machine: its kernel is a file of QEMU's firmware configuration
// device, as there is no system partition, and the command line is this application's own.
#include "uefi/firmware.h"
#include "uefi/platform.h"
#include "uefi/text.h"

static const char kernel_file[] = "opt/tarnix/kernel";

// The device, and its registers' offsets; all of its numbers are big-endian.
static const uint64_t config_device = 0x09020000;
static const uint64_t config_transfer = 16;  // written with the address of a transfer, it runs
static const uint16_t config_directory = 0x19;
enum : uint32_t { transfer_error = 1, transfer_read = 2, transfer_select = 8 };

struct config_transfer_record {
    uint32_t control, length;
    uint64_t address;
};

struct config_entry {
    uint32_t size;
    uint16_t select, reserved;
    char name[56];
};

// Reads on in the selected file; selects another one first if `select` is not negative.
static bool config_read(int select, void *to, uint32_t length) {
    uint32_t control = transfer_read;
    if (select >= 0) {
        control |= transfer_select | static_cast<uint32_t>(select) << 16;
    }
    volatile struct config_transfer_record record = {
        __builtin_bswap32(control), __builtin_bswap32(length),
        __builtin_bswap64(reinterpret_cast<uint64_t>(to))};
    asm volatile("dsb sy" ::: "memory");
    *static_cast<volatile uint64_t *>(memory_at(config_device + config_transfer)) =
        __builtin_bswap64(reinterpret_cast<uint64_t>(&record));
    while ((__builtin_bswap32(record.control) & ~transfer_error) != 0) {
    }
    asm volatile("dsb sy" ::: "memory");
    return record.control == 0;
}

static bool find_kernel(struct config_entry *entry) {
    uint32_t count = 0;
    if (!config_read(config_directory, &count, sizeof(count))) {
        return false;
    }
    for (count = __builtin_bswap32(count); count > 0; --count) {
        if (!config_read(-1, entry, sizeof(*entry))) {
            return false;
        }
        if (__builtin_memcmp(entry->name, kernel_file, sizeof(kernel_file)) == 0) {
            return true;
        }
    }
    return false;
}

// QEMU keeps its translation of the crashed kernel's code, and a page that has some takes each
// write of the processor slowly, where a device's is as fast as ever. So a device writes where the
// firmware is going to put the image.
static void clear_translations(int kernel, uint32_t size) {
    void *place = allocate(size);
    if (place != nullptr) {
        config_read(kernel, place, size);
        release(place, size);
    }
}

efi_handle platform_load_system() {
    struct config_entry entry = {};
    if (!find_kernel(&entry)) {
        say("no kernel: start QEMU with -fw_cfg name=", kernel_file, ",file=Image");
        return nullptr;
    }
    const uint32_t size = __builtin_bswap32(entry.size);
    void *kernel = allocate(size);
    efi_handle image = nullptr;
    if (kernel == nullptr || !config_read(__builtin_bswap16(entry.select), kernel, size)) {
        say("the kernel's ", decimal{size}, " bytes cannot be read");
        return nullptr;
    }
    clear_translations(__builtin_bswap16(entry.select), size);
    const efi_status status =
        firmware->boot->load_image(0, own_image, nullptr, kernel, size, &image);
    release(kernel, size);  // the image is a copy
    if (status != 0) {
        say("the firmware does not take the kernel");
        return nullptr;
    }
    const auto *own =
        static_cast<struct efi_loaded_image *>(protocol_of(own_image, &efi_loaded_image_guid));
    auto *system =
        static_cast<struct efi_loaded_image *>(protocol_of(image, &efi_loaded_image_guid));
    system->load_options = own->load_options;
    system->load_options_size = own->load_options_size;
    return image;
}
