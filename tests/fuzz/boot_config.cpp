// The sources of the boot configuration, and the slot suffix that an fstab gets from them.
//
// Input: four texts with "%%" between them: the property, the kernel command line, the device
// tree's "compatible" and its slot_suffix.  An empty file is one that is not there.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <assert.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "fs_mgr/fs_mgr_boot_config.h"
#include "fs_mgr/fs_mgr_flags.h"
#include "fs_mgr/fs_mgr_fstab.h"

static std::string property, cmdline, compatible, suffix_file;

// Stands before libbase's: the files at the absolute paths are the input's.
bool android::base::ReadFileToString(const std::string &path, std::string *content, bool follow) {
    assert(!follow);
    const std::string name = path.substr(path.rfind('/') + 1);
    *content = name == "cmdline" ? cmdline : name == "compatible" ? compatible : suffix_file;
    return !content->empty();
}

static void cut(std::string *text, std::string *piece) {
    *piece = text->substr(0, text->find("%%"));
    text->erase(0, piece->size() + 2);
}

static void check_cmdline(const std::string &key) {
    std::string value = "as it was";
    const bool found = fs_mgr_get_boot_config_from_kernel_cmdline(key, &value);
    assert(found ? cmdline.find("androidboot." + key + "=" + value) != std::string::npos
                 : value == "as it was");
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    get_android_dt_dir();  // settled by the first call: the same for every input
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    for (std::string *piece : {&property, &cmdline, &compatible, &suffix_file}) {
        cut(&text, piece);
    }
    property.resize(strlen(property.c_str()));  // a NUL ends a property
    android::base::SetProperty("ro.boot.slot_suffix", property);
    check_cmdline("android_dt_dir");
    check_cmdline("slot_suffix");
    std::string suffix;
    const bool found = fs_mgr_get_boot_config("slot_suffix", &suffix);
    assert(property.empty() || (found && suffix == property));
    assert(!is_dt_compatible() || compatible.compare(0, 16, "android,firmware") == 0);

    fstab_rec recs[2] = {};
    recs[0].blk_device = strdup("/dev/x");
    recs[1].blk_device = strdup("/dev/x");
    recs[1].fs_mgr_flags = mf_slotselect;
    fstab table = {2, recs, nullptr};
    assert(fs_mgr_update_for_slotselect(&table) == !suffix.empty());
    suffix.resize(strlen(suffix.c_str()));  // as the table's strings are
    assert(recs[0].blk_device == std::string("/dev/x"));
    assert(recs[1].blk_device == "/dev/x" + suffix);
    free(recs[0].blk_device);
    free(recs[1].blk_device);
    return 0;
}
