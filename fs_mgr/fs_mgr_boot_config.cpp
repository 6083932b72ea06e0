#include "fs_mgr/fs_mgr_boot_config.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <stdio.h>
#include <stdlib.h>

#include <vector>

#include "fs_mgr/fs_mgr_flags.h"
#include "fs_mgr/fs_mgr_fstab.h"

static const std::string default_android_dt_dir = "/proc/device-tree/firmware/android";

// Reads a device-tree file without its last character: properties of the tree are strings with
// their terminator. False for a file that cannot be read or is empty; *value may then hold what
// could be read. A link in place of the file is not followed.
static bool read_dt_file(const std::string &name, std::string *value) {
    if (!android::base::ReadFileToString(get_android_dt_dir() + "/" + name, value, false) ||
        value->empty()) {
        return false;
    }
    value->pop_back();
    return true;
}

bool fs_mgr_get_boot_config(const std::string &key, std::string *out_val) {
    CHECK(out_val != nullptr) << "in libfs_mgr ";

    *out_val = android::base::GetProperty("ro.boot." + key, "");
    if (!out_val->empty()) {
        return true;
    }
    if (fs_mgr_get_boot_config_from_kernel_cmdline(key, out_val)) {
        return true;
    }
    return is_dt_compatible() && read_dt_file(key, out_val);
}

bool fs_mgr_get_boot_config_from_kernel_cmdline(const std::string &key, std::string *out_val) {
    CHECK(out_val != nullptr) << "in libfs_mgr ";

    std::string cmdline;
    if (!android::base::ReadFileToString("/proc/cmdline", &cmdline, false)) {
        return false;
    }
    // There is no quoting: a quoted value with blanks in it is cut at them. A value with a "=" of
    // its own gives three parts and is passed over.
    for (const std::string &entry : android::base::Split(android::base::Trim(cmdline), " ")) {
        const std::vector<std::string> parts = android::base::Split(entry, "=");
        if (parts.size() == 2 && parts[0] == "androidboot." + key) {
            *out_val = parts[1];
            return true;
        }
    }
    return false;
}

const std::string &get_android_dt_dir() {
    static const std::string android_dt_dir = [] {
        std::string dir;
        return fs_mgr_get_boot_config_from_kernel_cmdline("android_dt_dir", &dir)
                   ? dir
                   : default_android_dt_dir;
    }();
    return android_dt_dir;
}

bool is_dt_compatible() {
    std::string value;
    return read_dt_file("compatible", &value) && value == "android,firmware";
}

bool fs_mgr_update_for_slotselect(struct fstab *table) {
    std::string suffix;
    for (int32_t i = 0; i < table->num_entries; ++i) {
        struct fstab_rec *rec = &table->recs[i];
        if ((static_cast<uint32_t>(rec->fs_mgr_flags) & mf_slotselect) == 0) {
            continue;
        }
        if (suffix.empty()) {
            // Only whether there is a text counts: an empty suffix that was found is none.
            fs_mgr_get_boot_config("slot_suffix", &suffix);
            if (suffix.empty()) {
                return false;
            }
        }
        char *device = nullptr;
        if (asprintf(&device, "%s%s", rec->blk_device, suffix.c_str()) < 1) {
            return false;
        }
        free(rec->blk_device);
        rec->blk_device = device;
    }
    return true;
}
