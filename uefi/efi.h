// What this application uses of the UEFI interface (version 2.10), laid out as it is
// for 64-bit Arm. Calls that are not used are there as places only: the tables are arrays of
// pointers in a fixed order.
#ifndef TARNIX_UEFI_EFI_H
#define TARNIX_UEFI_EFI_H

#include <stddef.h>
#include <stdint.h>

// 0 is success; errors have the highest bit set.
typedef uint64_t efi_status;
typedef void *efi_handle;

constexpr uint64_t efi_page_size = 4096;

struct efi_guid {
    uint32_t a;
    uint16_t b, c;
    uint8_t d[8];
};

// GUIDs of the protocols, and of the configuration table that is the flattened device tree.
constexpr struct efi_guid efi_loaded_image_guid = {
    0x5b1b31a1, 0x9562, 0x11d2, {0x8e, 0x3f, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b}};
constexpr struct efi_guid efi_block_io_guid = {
    0x964e5b21, 0x6459, 0x11d2, {0x8e, 0x39, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b}};
constexpr struct efi_guid efi_partition_info_guid = {
    0x8cf2f62c, 0xbc9b, 0x4821, {0x80, 0x8d, 0xec, 0x9e, 0xc4, 0x21, 0xa1, 0xa0}};
constexpr struct efi_guid efi_device_tree_guid = {
    0xb1b621d5, 0xf19c, 0x41a5, {0x83, 0x0b, 0xd9, 0x15, 0x2c, 0x69, 0xaa, 0xe0}};

struct efi_table_header {
    uint64_t signature;
    uint32_t revision, header_size, crc32, reserved;
};

struct efi_text_output {
    void *reset;
    efi_status (*output_string)(struct efi_text_output *self, const char16_t *text);
};

// Kinds of memory.
enum efi_memory_type : uint32_t {
    efi_reserved_memory,
    efi_loader_code,
    efi_loader_data,
    efi_boot_services_code,
    efi_boot_services_data,
    efi_runtime_services_code,
    efi_runtime_services_data,
    efi_conventional_memory,
    efi_unusable_memory,
    efi_acpi_reclaim_memory,
    efi_acpi_nvs_memory,
    efi_memory_mapped_io
};

struct efi_memory_descriptor {
    uint32_t type, padding;
    uint64_t physical_start, virtual_start, pages, attributes;
};

constexpr uint32_t efi_allocate_any_pages = 0;
constexpr uint32_t efi_allocate_address = 2;
constexpr uint32_t efi_locate_all_handles = 0;
constexpr uint32_t efi_locate_by_protocol = 2;

struct efi_boot_services {
    struct efi_table_header header;
    void *raise_tpl, *restore_tpl;
    efi_status (*allocate_pages)(uint32_t how, uint32_t type, size_t pages, uint64_t *address);
    efi_status (*free_pages)(uint64_t address, size_t pages);
    // A buffer that is too small: an error, and *size is what it takes. Entries are *entry_size
    // bytes apart, which may be more than efi_memory_descriptor has.
    efi_status (*get_memory_map)(size_t *size, void *map, size_t *key, size_t *entry_size,
                                 uint32_t *version);
    void *allocate_pool;
    efi_status (*free_pool)(void *buffer);
    void *create_event, *set_timer, *wait_for_event, *signal_event, *close_event, *check_event;
    void *install_protocol, *reinstall_protocol, *uninstall_protocol;
    efi_status (*handle_protocol)(efi_handle handle, const struct efi_guid *guid, void **interface);
    void *reserved, *register_protocol_notify, *locate_handle, *locate_device_path;
    void *install_configuration_table;
    efi_status (*load_image)(uint8_t boot_policy, efi_handle parent, void *path, void *source,
                             size_t source_size, efi_handle *image);
    efi_status (*start_image)(efi_handle image, size_t *exit_data_size, char16_t **exit_data);
    void *exit, *unload_image, *exit_boot_services, *get_next_monotonic_count, *stall;
    // timeout: seconds until the firmware resets the machine; 0 switches the watchdog off.
    efi_status (*set_watchdog_timer)(size_t timeout, uint64_t code, size_t data_size,
                                     char16_t *data);
    efi_status (*connect_controller)(efi_handle controller, efi_handle *drivers, void *path,
                                     uint8_t recursive);
    void *disconnect_controller, *open_protocol, *close_protocol, *open_protocol_information;
    void *protocols_per_handle;
    // The handles are the caller's to free.
    efi_status (*locate_handle_buffer)(uint32_t how, const struct efi_guid *guid, void *key,
                                       size_t *count, efi_handle **handles);
};

struct efi_time {
    uint16_t year;
    uint8_t month, day, hour, minute, second, padding_1;
    uint32_t nanosecond;
    int16_t time_zone;
    uint8_t daylight, padding_2;
};

struct efi_runtime_services {
    struct efi_table_header header;
    efi_status (*get_time)(struct efi_time *time, void *capabilities);
    void *set_time, *get_wakeup_time, *set_wakeup_time, *set_virtual_address_map, *convert_pointer;
    void *get_variable, *get_next_variable_name, *set_variable, *get_next_high_monotonic_count;
    // how: 2 is power-off. Does not return.
    void (*reset_system)(uint32_t how, efi_status status, size_t data_size, void *data);
};

struct efi_configuration_table {
    struct efi_guid guid;
    void *table;
};

struct efi_system_table {
    struct efi_table_header header;
    const char16_t *firmware_vendor;
    uint32_t firmware_revision, padding;
    void *console_in_handle, *console_in, *console_out_handle;
    struct efi_text_output *console_out;
    void *error_handle, *error;
    struct efi_runtime_services *runtime;
    struct efi_boot_services *boot;
    size_t table_count;
    struct efi_configuration_table *tables;
};

struct efi_loaded_image {
    uint32_t revision, padding;
    efi_handle parent;
    struct efi_system_table *table;
    efi_handle device;
    void *path, *reserved;
    uint32_t load_options_size, padding_2;
    void *load_options;
};

struct efi_block_media {
    uint32_t media_id;
    uint8_t removable, present, logical_partition, read_only, write_caching, padding[3];
    uint32_t block_size, io_align;
    uint64_t last_block;
};

struct efi_block_io {
    uint64_t revision;
    const struct efi_block_media *media;
    void *reset;
    efi_status (*read_blocks)(struct efi_block_io *self, uint32_t media_id, uint64_t block,
                              size_t size, void *buffer);
    efi_status (*write_blocks)(struct efi_block_io *self, uint32_t media_id, uint64_t block,
                               size_t size, const void *buffer);
    // Returns when all that was written is on the medium.
    efi_status (*flush_blocks)(struct efi_block_io *self);
};

constexpr uint32_t efi_partition_type_gpt = 2;

struct efi_partition_info {
    uint32_t revision, type;
    uint8_t system, reserved[7];
    // Of a GPT partition, the entry of the table, unaligned.
    uint8_t gpt_type[16], gpt_unique[16], gpt_first[8], gpt_last[8], gpt_attributes[8];
    uint8_t gpt_name[72];
};

static_assert(offsetof(struct efi_boot_services, locate_handle_buffer) == 24 + 36 * 8);
static_assert(offsetof(struct efi_boot_services, load_image) == 24 + 22 * 8);
static_assert(offsetof(struct efi_boot_services, set_watchdog_timer) == 24 + 29 * 8);
static_assert(offsetof(struct efi_runtime_services, reset_system) == 24 + 10 * 8);
static_assert(offsetof(struct efi_system_table, tables) == 112);
static_assert(offsetof(struct efi_block_media, last_block) == 24);
static_assert(offsetof(struct efi_partition_info, gpt_name) == 16 + 56);

#endif
