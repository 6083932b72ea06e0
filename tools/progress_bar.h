// A bar on standard error for work that takes long. Nothing is drawn where that is no terminal.
#ifndef TARNIX_TOOLS_PROGRESS_BAR_H
#define TARNIX_TOOLS_PROGRESS_BAR_H

#include "tools/disk_image.h"

// Starts a bar that follows the transfers of `image` up to `total` bytes of its data partition.
void progress_begin(struct disk_image *image, const char *label, uint64_t total);

// Wipes the bar, before anything else is printed.
void progress_end(struct disk_image *image);

#endif
