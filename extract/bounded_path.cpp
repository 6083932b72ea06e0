#include "extract/bounded_path.h"

#include <dirent.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "config/log.h"

void format_path(char *path, size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(path, size, format, arguments);
    va_end(arguments);
}

void copy_directory_path(char *copy, const char *path) {
    format_path(copy, working_path_size, "%s", path);
    const size_t length = strlen(copy);
    if (length > 0 && copy[length - 1] == '/') {
        copy[length - 1] = '\0';
    }
}

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
