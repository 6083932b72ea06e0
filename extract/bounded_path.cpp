#include "extract/bounded_path.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

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
