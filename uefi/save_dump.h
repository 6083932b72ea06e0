// The dump of a crash: what is saved, in which order, and what is said of it.
#ifndef TARNIX_UEFI_SAVE_DUMP_H
#define TARNIX_UEFI_SAVE_DUMP_H

#include "uefi/device_tree.h"

// Saves boot_info.txt, the logs, and the RAM, one file a region, what does not fit left out, and
// announces the dump. A chain that is not right is not written to, and a dump that already waits is
// kept. Says on the console what was done, and why something was not. tries: of crash_page.h.
void save_dump(const struct reserved_memory *reserved, uint64_t tries);

#endif
