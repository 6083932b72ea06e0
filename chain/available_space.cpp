#include "chain/available_space.h"

#include <errno.h>
#include <string.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "config/log.h"

uint64_t get_directory_available_space(const char * /* path */) {
    // Always the data partition: the dumps go there. A map file in some other place is checked
    // against the data partition too.
    static const char directory[] = "/data/vendor";
    struct statvfs file_system;
    uint64_t available = 0;
    if (TEMP_FAILURE_RETRY(statvfs(directory, &file_system)) == 0) {
        available = static_cast<uint64_t>(file_system.f_bavail) * file_system.f_bsize;
    } else {
        log_error("%s: Could not statvfs %s: %s\n", __func__, directory, strerror(errno));
    }
    log_error("%s: available_space: %lu\n", __func__, available);
    return available;
}
