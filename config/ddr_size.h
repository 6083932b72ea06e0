// How much RAM the device has.
#ifndef TARNIX_CONFIG_DDR_SIZE_H
#define TARNIX_CONFIG_DDR_SIZE_H

#include <stdint.h>

// Reads the device's RAM size from the property "ro.boot.ddrsize" into `bytes`: as many GiB as its
// first character says, and half a GiB more when ".5" follows. False, with `bytes` left alone,
// when the property is unset or empty.
//
// Only the first character counts: 12 is read as 1. A character below '0' is not refused, and the
// arithmetic wraps around. Keep it so: the map's size and the space for a dump follow from this
// alone, and the boot side of the devices in the field relies on these sizes.
bool read_ddr_size(uint64_t *bytes);

#endif
