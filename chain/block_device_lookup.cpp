#include "chain/block_device_lookup.h"

#include <stdio.h>
#include <string.h>

#include "config/log.h"
#include "config/properties.h"
#include "fs_mgr/fs_mgr_fstab.h"

struct fstab *device_fstab;

// Loads the fstab named after the hardware from `directory_prefix` into device_fstab.
static bool load_fstab(const char *directory_prefix) {
    char path[4097];
    char hardware[property_value_max];
    device_fstab = nullptr;
    if (property_get("ro.hardware", hardware, "") == 0) {
        log_error("failed to get ro.hardware\n");
        return false;
    }
    snprintf(path, sizeof(path), "%s%s", directory_prefix, hardware);
    device_fstab = fs_mgr_read_fstab(path);
    if (device_fstab == nullptr) {
        log_error("failed to read %s\n", path);
        return false;
    }
    return true;
}

bool load_device_fstab() {
    return load_fstab("/fstab.") || load_fstab("/vendor/etc/fstab.");
}

static bool is_mounted_under(const char *path, const char *mount_point) {
    const size_t length = strlen(mount_point);
    return strncmp(path, mount_point, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

const char *find_block_device(const char *path, int *encryptable, int *encrypted) {
    // The first entry that contains the path, not the deepest: the order of the fstab is the
    // device's own say.
    for (int i = 0; i < device_fstab->num_entries; ++i) {
        const struct fstab_rec *rec = &device_fstab->recs[i];
        if (rec->mount_point == nullptr || !is_mounted_under(path, rec->mount_point)) {
            continue;
        }
        *encryptable = 0;
        *encrypted = 0;
        if (fs_mgr_is_encryptable(rec) != 0) {
            *encryptable = 1;
            char state[property_value_max];
            if (property_get("ro.crypto.state", state, "") != 0 &&
                strcmp(state, "encrypted") == 0) {
                *encrypted = 1;
            }
        }
        return rec->blk_device;
    }
    return nullptr;
}
