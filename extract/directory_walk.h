// The entries of one directory, one after another.
#ifndef TARNIX_EXTRACT_DIRECTORY_WALK_H
#define TARNIX_EXTRACT_DIRECTORY_WALK_H

// Calls `visit` with the path of each entry of the directory `path`, in the order of readdir, "."
// and ".." included, and logs the directory, or that it cannot be opened, under the name `caller`.
// `visit` is given the path and, within it, the entry's own name.
void visit_directory(const char *caller, const char *path,
                     void (*visit)(const char *entry_path, const char *name));

#endif
