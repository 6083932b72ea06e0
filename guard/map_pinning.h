#ifndef TARNIX_GUARD_MAP_PINNING_H
#define TARNIX_GUARD_MAP_PINNING_H

// Has f2fs leave the blocks of the map file, open as `file`, where they are; other file systems
// move none by themselves. Logs what came of it; where the kernel cannot, only when `says_so` is
// set.
void pin_map_file(int file, bool says_so);

#endif
