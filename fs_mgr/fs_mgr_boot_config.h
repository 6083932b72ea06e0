// What the boot loader passed to the system, and the boot slot's suffix for the fstab.
#ifndef TARNIX_FS_MGR_BOOT_CONFIG_H
#define TARNIX_FS_MGR_BOOT_CONFIG_H

#include <string>

struct fstab;

// Looks key up in the property "ro.boot." + key, then on the kernel command line as
// "androidboot." + key, then as a file in the device tree's firmware directory.
//
// True when a source has it, with the value in *out_val; the value can be empty when the command
// line or a device-tree file of one byte says so. A property or a device-tree file that is empty
// counts as missing. A null out_val aborts the process.
bool fs_mgr_get_boot_config(const std::string &key, std::string *out_val);

// The kernel command line's part of it. False leaves *out_val as it was.
bool fs_mgr_get_boot_config_from_kernel_cmdline(const std::string &key, std::string *out_val);

// The device tree's firmware directory: androidboot.android_dt_dir of the kernel command line,
// used as it stands, or else the platform's standard place. Settled by the first call.
const std::string &get_android_dt_dir();

// Whether that directory declares itself "android,firmware"; nothing else in it counts if not.
bool is_dt_compatible();

// Appends the boot slot's suffix ("slot_suffix") to blk_device of each slotselect entry. False
// when there is such an entry and no suffix: entries before the failing one keep theirs.
bool fs_mgr_update_for_slotselect(struct fstab *table);

#endif
