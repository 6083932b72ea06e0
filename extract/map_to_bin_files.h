// The dump in the chain's payloads, as files.
#ifndef TARNIX_EXTRACT_MAP_TO_BIN_FILES_H
#define TARNIX_EXTRACT_MAP_TO_BIN_FILES_H

// Splits the dump in the chain's payloads into files in ramdump_path. `map_path` is the map file,
// `blkdev` the block device under it; blocks are taken in the order of the file and read from the
// device. 0 when the extraction ended, also where the dump ends early or is damaged; -1 when the
// map file, the device or the space for the files is not to be had; each with a line in the log.
int map_to_bin_files(const char *map_path, const char *blkdev);

#endif
