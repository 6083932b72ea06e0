// The partitions misc and userdata, as the kit wants them: the port over Block IO.
#ifndef TARNIX_UEFI_STORAGE_H
#define TARNIX_UEFI_STORAGE_H

#include "bootside/bootside.h"
#include "uefi/efi.h"

struct storage {
    struct efi_block_io *misc, *data;
    unsigned char *sector;  // a block of misc, to change bytes in it
    struct bootside_port port;
};

// Finds the two partitions by their names in the GPT, connecting the drivers if they are not, and
// takes the port's memory. Says on the console what is missing, and returns false.
//
// `storage` must stay where it is as long as its port is in use. Each transfer sets the firmware's
// watchdog anew, so that it bites where a driver hangs and not where a dump is large.
bool storage_open(struct storage *storage);

// Switches the firmware's watchdog off.
void storage_stop_watchdog();

#endif
