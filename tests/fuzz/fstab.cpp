// The fstab, and the lookup of the map file's device in it.
//
// Input: the file. It is written to the working directory.
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <assert.h>
#include <string.h>

#include "chain/block_device_lookup.h"
#include "fs_mgr/fs_mgr_fstab.h"
#include "tests/support/files.h"

// Whether a reservedsize= may overflow 64 bits. That ends the process on purpose: no finding.
static bool aborts_on_purpose(const std::string &text) {
    static const std::string option = "reservedsize=";
    for (size_t at = text.find(option); at != std::string::npos; at = text.find(option, at + 1)) {
        if (strtoull(&text[at + option.size()], nullptr, 10) > UINT64_MAX >> 30) {
            return true;
        }
    }
    return false;
}

// The strings of options that a later one of the line replaces stay allocated, on purpose.
extern "C" const char *__asan_default_options() {
    return "detect_leaks=0";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    android::base::SetLogger([](auto...) {});
    android::base::SetProperty("ro.boot.slot_suffix", "_a");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (aborts_on_purpose(text)) {
        return -1;
    }
    write_file("./fstab", text);
    device_fstab = fs_mgr_read_fstab("./fstab");
    if (device_fstab == nullptr) {
        return 0;
    }
    assert(device_fstab->num_entries > 0);
    int encryptable = 2;
    int encrypted = 2;
    const char *device = find_block_device("/data/ramdump.map", &encryptable, &encrypted);
    assert(device == nullptr || encrypted <= encryptable);
    for (int32_t i = 0; i < device_fstab->num_entries; ++i) {
        const struct fstab_rec *rec = &device_fstab->recs[i];
        assert(rec->blk_device != nullptr && rec->mount_point != nullptr);
        assert(rec->fs_options == nullptr || strlen(rec->fs_options) < 1024);
        for (const uint32_t block_size : {rec->erase_blk_size, rec->logical_blk_size}) {
            assert(block_size == 0 || (block_size >= 4096 && (block_size & (block_size - 1)) == 0));
        }
        free(rec->verity_loc);  // the table leaves it to its user
    }
    fs_mgr_free_fstab(device_fstab);
    return 0;
}
