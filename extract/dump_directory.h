// Numbered directories for the dumps: a fresh one for each, and the oldest removed.
#ifndef TARNIX_EXTRACT_DUMP_DIRECTORY_H
#define TARNIX_EXTRACT_DUMP_DIRECTORY_H

#include <stddef.h>

constexpr size_t dump_path_size = 512;

// Path of the newest dump directory, with its "/" at the end; empty until config_ramdump_path has
// run. The first is the prefix of every dump file, the second is for the driver, which opens up
// its permissions after the extraction.
extern char ramdump_path[dump_path_size];
extern char permission_path[dump_path_size];

// Makes the next dump directory under /data/vendor/ramdump/apq/ and sets the two paths above; then
// removes the oldest ones, so that one dump stays in all, or two where the file system is larger
// than 32 GiB. 0; -1 when the base directory cannot be listed, with both paths as they were.
// Everything else that fails is logged and passed over.
int config_ramdump_path();

// Creates the directory `path` and its missing ancestors, mode 0777; those that exist get that mode
// too, all but /data itself. Problems go to the log only.
void _mkdir(const char *path);

#endif
