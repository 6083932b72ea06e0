/* Saves memory regions as the files of a dump, and says on a console what came of it. */
#ifndef TARNIX_BOOTSIDE_EXAMPLE_SAVE_DUMP_H
#define TARNIX_BOOTSIDE_EXAMPLE_SAVE_DUMP_H

#include "bootside/bootside.h"

struct region {
    const char *name;  /* at most 19 characters, no slash */
    const void *start; /* 0 is a good address */
    size_t size;
};

typedef void (*printer)(const char *text);

/* Saves the regions that fit, in their order. Returns 0 when a dump now waits for the device. */
int save_dump(const struct bootside_port *port, const struct region *regions, size_t count,
              printer print);

#endif
