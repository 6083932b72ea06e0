// Paths in buffers of fixed size, and the walk over one directory that goes with them.
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

// Calls `visit` with the path of each entry of the directory `path`, in the order of readdir, "."
// and ".." included, and logs the directory, or that it cannot be opened, under the name `caller`.
// `visit` is given the path and, within it, the entry's own name.
void visit_directory(const char *caller, const char *path,
                     void (*visit)(const char *entry_path, const char *name));

#endif
