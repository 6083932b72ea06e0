// The device's file-system table (fstab): a text file read into records.
#ifndef TARNIX_FS_MGR_FSTAB_H
#define TARNIX_FS_MGR_FSTAB_H

#include <stdint.h>

// One entry. Strings are heap copies that belong to the table; null where the line gives none.
struct fstab_rec {
    char *blk_device;  // mount source; slotselect entries carry the slot's suffix
    char *mount_point;
    char *fs_type;
    uint64_t mount_flags;         // MS_* bits of the mount options that are known
    char *fs_options;             // the other mount options, joined by ","
    int32_t fs_mgr_flags;         // bits of enum fs_mgr_flag (fs_mgr_flags.h)
    char *key_loc;                // encryptable=, forceencrypt= or forcefdeorfbe=, the last one
    char *key_dir;                // keydirectory=
    char *verity_loc;             // verify=; not released with the table
    int64_t length;               // length=
    char *label;                  // voldmanaged=, before the ":"
    int32_t partnum;              // voldmanaged=, after the ":"; -1 for auto and for none
    int32_t swap_prio;            // swapprio=; -1 without it
    int32_t max_comp_streams;     // max_comp_streams=
    uint32_t zram_size;           // zramsize=, bytes modulo 2^32
    uint64_t reserved_size;       // reservedsize=, bytes
    uint32_t file_contents_mode;  // enum encryption_mode (fs_mgr_flags.h); 0 for none
    uint32_t file_names_mode;     // enum encryption_mode (fs_mgr_flags.h); 0 for none
    uint32_t erase_blk_size;      // eraseblk=, bytes: 0, or a power of two from 4096
    uint32_t logical_blk_size;    // logicalblk=, bytes: 0, or a power of two from 4096
    char *sysfs_path;             // sysfs_path=
};

// A loaded table: the entries in the order of the file.
struct fstab {
    int32_t num_entries;
    struct fstab_rec *recs;
    char *fstab_filename;  // the path that was asked for, also when the fallback was read
};

// Loads the table at path, or, when that cannot be opened, "fstab.qcom" in the working directory.
// Null on any failure, with a line in the log; one malformed line discards the whole table.
// The caller releases the result with fs_mgr_free_fstab.
//
// Entries past the last parsed one are all-null; there are some only where the file shrank while
// it was read. A value whose arithmetic overflows 64 bits aborts the process.
struct fstab *fs_mgr_read_fstab(const char *path);

// Releases a table; null is ignored. The verity_loc strings stay allocated.
void fs_mgr_free_fstab(struct fstab *table);

// The bits of encryptable=, forceencrypt= and forcefdeorfbe= that the entry has; 0 for none.
int32_t fs_mgr_is_encryptable(const struct fstab_rec *rec);

#endif
