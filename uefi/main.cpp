// The boot application: after a crash it saves the RAM, then, and at every other start at once, it
// starts the system.
#include "uefi/crash_page.h"
#include "uefi/device_tree.h"
#include "uefi/firmware.h"
#include "uefi/platform.h"
#include "uefi/ram.h"
#include "uefi/save_dump.h"
#include "uefi/storage.h"
#include "uefi/text.h"

struct efi_system_table *firmware;
efi_handle own_image;

static const void *find_device_tree() {
    for (size_t i = 0; i < firmware->table_count; ++i) {
        if (same_guid(&firmware->tables[i].guid, &efi_device_tree_guid)) {
            return firmware->tables[i].table;
        }
    }
    return nullptr;
}

static void handle_crash(const struct reserved_memory *reserved) {
    if (reserved->crash_page.size < sizeof(struct crash_page)) {
        say("the device tree has no crash page: a crash cannot be told from a start");
        return;
    }
    auto *page = static_cast<struct crash_page *>(memory_at(reserved->crash_page.start));
    if (crash_page_take(page)) {
        save_dump(reserved, page->tries);
        crash_page_disarm(page);
        storage_stop_watchdog();
    }
}

extern "C" efi_status efi_main(efi_handle image, struct efi_system_table *table);

efi_status efi_main(efi_handle image, struct efi_system_table *table) {
    own_image = image;
    firmware = table;
    const uint64_t start = now_ms();
    const struct reserved_memory reserved = find_reserved_memory(find_device_tree());
    handle_crash(&reserved);
    ram_keep_reserved(&reserved);
    efi_handle system = platform_load_system();
    if (system == nullptr) {
        return 1;
    }
    say("starting the system after ", decimal{now_ms() - start}, " ms");
    return firmware->boot->start_image(system, nullptr, nullptr);
}
