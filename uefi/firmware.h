// The firmware that runs this application, and the calls to it that more than one file makes.
#ifndef TARNIX_UEFI_FIRMWARE_H
#define TARNIX_UEFI_FIRMWARE_H

#include "uefi/efi.h"

// Set once by efi_main, before anything else.
extern struct efi_system_table *firmware;
extern efi_handle own_image;

inline bool same_guid(const struct efi_guid *a, const struct efi_guid *b) {
    return __builtin_memcmp(a, b, sizeof(*a)) == 0;
}

// The handle's interface of that protocol, or null.
inline void *protocol_of(efi_handle handle, const struct efi_guid *guid) {
    void *interface = nullptr;
    return firmware->boot->handle_protocol(handle, guid, &interface) == 0 ? interface : nullptr;
}

// Memory by its physical address: the firmware maps all of it at that address.
inline void *memory_at(uint64_t address) {
    return reinterpret_cast<void *>(address);  // NOLINT(performance-no-int-to-ptr)
}

inline size_t pages_of(size_t size) {
    return (size + efi_page_size - 1) / efi_page_size;
}

// Memory of at least `size` bytes, at the start of a page, or null. What is not given back goes to
// the system that is started. Firmware gives it from the top of the RAM down, where it has been all
// along, and not out of the crashed system's.
inline void *allocate(size_t size) {
    uint64_t address = 0;
    const efi_status status = firmware->boot->allocate_pages(
        efi_allocate_any_pages, efi_loader_data, pages_of(size), &address);
    return status == 0 ? memory_at(address) : nullptr;
}

inline void release(void *memory, size_t size) {
    firmware->boot->free_pages(reinterpret_cast<uint64_t>(memory), pages_of(size));
}

// Microseconds of the processor's counter, which runs on over a reset.
inline uint64_t now_us() {
    uint64_t count;
    uint64_t per_second;
    asm volatile("isb; mrs %0, cntvct_el0" : "=r"(count));
    asm volatile("mrs %0, cntfrq_el0" : "=r"(per_second));
    return count / per_second * 1000000 + count % per_second * 1000000 / per_second;
}

inline uint64_t now_ms() {
    return now_us() / 1000;
}

#endif
