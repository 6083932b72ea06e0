// Paths in buffers of fixed size.
#ifndef TARNIX_EXTRACT_BOUNDED_PATH_H
#define TARNIX_EXTRACT_BOUNDED_PATH_H

#include <stddef.h>

// Bytes of a working path's buffer, its NUL included.
constexpr size_t working_path_size = 4097;

// Formats a path into `path`, cut at `size` - 1 characters.
void format_path(char *path, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Copies `path` into a buffer of working_path_size bytes, without a "/" at its end.
void copy_directory_path(char *copy, const char *path);

#endif
