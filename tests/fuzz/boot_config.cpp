// The sources of the boot configuration, and the slot suffix that an fstab gets from them.
//
// Input: four texts with "|" between them: the property, the kernel command line, the device
// tree's "compatible" and its slot_suffix. An empty file is one that is not there.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <assert.h>
#include <string.h>

#include "fs_mgr/fs_mgr_boot_config.h"
#include "fs_mgr/fs_mgr_flags.h"
#include "fs_mgr/fs_mgr_fstab.h"

static std::vector<std::string> texts;

// Stands before libbase's: the files at the absolute paths are the input's.
bool android::base::ReadFileToString(const std::string &path, std::string *content, bool follow) {
    assert(!follow);
    const std::string name = path.substr(path.rfind('/') + 1);
    *content = texts[name == "cmdline" ? 1 : name == "compatible" ? 2 : 3];
    return !content->empty();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    texts = android::base::Split(std::string(reinterpret_cast<const char *>(data), size), "|");
    texts.resize(4);
    const std::string property = texts[0].substr(0, texts[0].find('\0'));  // a NUL ends a property
    android::base::SetProperty("ro.boot.slot_suffix", property);
    std::string value = "as it was";
    assert(fs_mgr_get_boot_config_from_kernel_cmdline("slot_suffix", &value)
               ? texts[1].find("androidboot.slot_suffix=" + value) != std::string::npos
               : value == "as it was");
    std::string suffix;
    const bool found = fs_mgr_get_boot_config("slot_suffix", &suffix);
    assert(property.empty() || (found && suffix == property));
    assert(!is_dt_compatible() || texts[2].compare(0, 16, "android,firmware") == 0);

    struct fstab_rec rec = {};
    rec.blk_device = strdup("/dev/x");
    rec.fs_mgr_flags = mf_slotselect;
    struct fstab table = {1, &rec, nullptr};
    assert(fs_mgr_update_for_slotselect(&table) == !suffix.empty());
    assert(strcmp(rec.blk_device, ("/dev/x" + suffix).c_str()) == 0);
    free(rec.blk_device);
    return 0;
}
