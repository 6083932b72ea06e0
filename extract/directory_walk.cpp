#include "extract/directory_walk.h"

#include <dirent.h>

#include "config/log.h"
#include "extract/bounded_path.h"

void visit_directory(const char *caller, const char *path,
                     void (*visit)(const char *entry_path, const char *name)) {
    char directory_path[working_path_size];
    copy_directory_path(directory_path, path);
    DIR *directory = opendir(directory_path);
    if (directory == nullptr) {
        log_info("%s: path: %s cannot be accessed, ignore.\n", caller, directory_path);
        return;
    }
    log_info("%s: path: %s.\n", caller, directory_path);
    for (struct dirent *entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        char entry_path[working_path_size];
        format_path(entry_path, sizeof(entry_path), "%s/%s", directory_path, entry->d_name);
        visit(entry_path, entry->d_name);
    }
    closedir(directory);
}
