#include "extract/permissions.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "config/log.h"
#include "extract/directory_walk.h"

static void open_up_entry(const char *entry_path, const char * /* name */) {
    log_info("%s: chmod for %s.\n", "_chmod", entry_path);
    if (chmod(entry_path, 0777) == -1) {
        log_info("%s: fail to chmod for %s: %s.\n", "_chmod", entry_path, strerror(errno));
    }
}

void _chmod(const char *path) {
    visit_directory(__func__, path, open_up_entry);
}
