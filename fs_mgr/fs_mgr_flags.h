// The comma-separated option columns of an fstab line. Internal to this folder.
#ifndef TARNIX_FS_MGR_FLAGS_H
#define TARNIX_FS_MGR_FLAGS_H

#include <stddef.h>
#include <stdint.h>

// Bits of fstab_rec.fs_mgr_flags, one for each option of the fifth column.
enum fs_mgr_flag : uint32_t {
    mf_wait = 0x1,
    mf_check = 0x2,
    mf_encryptable = 0x4,
    mf_nonremovable = 0x8,
    mf_voldmanaged = 0x10,
    mf_length = 0x20,
    mf_recoveryonly = 0x40,
    mf_swapprio = 0x80,
    mf_zramsize = 0x100,
    mf_verify = 0x200,
    mf_forceencrypt = 0x400,
    mf_noemulatedsd = 0x800,
    mf_notrim = 0x1000,
    mf_fileencryption = 0x2000,
    mf_formattable = 0x4000,
    mf_slotselect = 0x8000,
    mf_forcefdeorfbe = 0x10000,
    mf_latemount = 0x20000,
    mf_nofail = 0x40000,
    mf_verifyatboot = 0x80000,
    mf_max_comp_streams = 0x100000,
    mf_reservedsize = 0x200000,
    mf_quota = 0x400000,
    mf_eraseblk = 0x800000,
    mf_logicalblk = 0x1000000,
    mf_avb = 0x2000000,
    mf_keydirectory = 0x4000000,
    mf_sysfs_path = 0x8000000,
    mf_wrappedkey = 0x10000000,
};

// Codes of fstab_rec.file_contents_mode (1, 2) and file_names_mode (3, 4).
enum encryption_mode : uint32_t {
    encryption_mode_none = 0,
    encryption_mode_aes_256_xts = 1,
    encryption_mode_ice = 2,
    encryption_mode_aes_256_cts = 3,
    encryption_mode_aes_256_heh = 4,
};

// One row of an option table; a table ends with a row whose name is null.
struct flag_list {
    const char *name;
    uint32_t value;
};

// The fourth column: names and MS_* bits.
extern const struct flag_list mount_flag_table[];
// The fifth column: names and enum fs_mgr_flag bits.
extern const struct flag_list fs_mgr_flag_table[];

// What the options of one line's fifth column carry, field for field as in fstab_rec.
// The strings are heap copies and belong to whoever takes the record over.
struct fs_mgr_flag_values {
    char *key_loc;
    char *key_dir;
    char *verity_loc;
    char *sysfs_path;
    int64_t length;
    char *label;
    int32_t partnum;
    int32_t swap_prio;
    int32_t max_comp_streams;
    uint32_t zram_size;
    uint64_t reserved_size;
    uint32_t file_contents_mode;
    uint32_t file_names_mode;
    uint32_t erase_blk_size;
    uint32_t logical_blk_size;
};

// Parses one column against one table and returns the OR of the matched rows' values. An option
// matches the first row whose name it begins with. options is cut up in place.
//
// values (may be null) is reset, then filled from the options that carry a value; give it only
// with fs_mgr_flag_table. passthrough (may be null) receives the unmatched options joined by ",",
// as much of them as fits in size bytes; without it each of them is a warning in the log.
int32_t parse_flags(char *options, const struct flag_list *table, struct fs_mgr_flag_values *values,
                    char *passthrough, size_t size);

// Bytes in percent hundredths of pages memory pages of page_size bytes, modulo 2^32. Aborts when
// the full product overflows 64 bits.
uint32_t zram_percentage(uint32_t percent, uint64_t pages, uint64_t page_size);

#endif
