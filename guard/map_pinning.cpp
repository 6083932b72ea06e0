#include "guard/map_pinning.h"

#include <errno.h>
#include <linux/ioctl.h>
#include <linux/magic.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>

#include "guard/guard_log.h"

// F2FS_IOC_SET_PIN_FILE, which the platform's headers lack: kernels from 4.16 on have it.
static const unsigned long set_pin_file = _IOW(0xf5, 13, uint32_t);

void pin_map_file(int file, bool says_so) {
    struct statfs file_system;
    if (fstatfs(file, &file_system) != 0 ||
        static_cast<uint32_t>(file_system.f_type) != F2FS_SUPER_MAGIC) {
        return;
    }
    const uint32_t pinned = 1;
    // Again on every boot: f2fs drops the flag of a file that was too often in its way.
    // More than 0 counts how often f2fs had to leave the file alone.
    if (ioctl(file, set_pin_file, &pinned) >= 0) {
        guard_info("the map file is pinned\n");
    } else if (says_so) {
        guard_error("the map file cannot be pinned, f2fs may move it: %s\n", strerror(errno));
    }
}
