// The room that a dump's files need.
#ifndef TARNIX_EXTRACT_DUMP_SPACE_H
#define TARNIX_EXTRACT_DUMP_SPACE_H

// Whether the data partition has room for a dump of this device's memory. Logs both sizes when it
// has not; `map_path` is for that line only.
bool has_space_for_dump(const char *map_path);

#endif
