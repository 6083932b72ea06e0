// What one device's firmware does in its own way: a port to another one supplies these.
#ifndef TARNIX_UEFI_PLATFORM_H
#define TARNIX_UEFI_PLATFORM_H

#include "uefi/efi.h"

// Loads what is to be started when the boot side is done: a kernel with an EFI stub, or the boot
// loader that this application stands before. Its command line is set, if it wants one. Returns the
// image to be started, or null with the reason on the console.
efi_handle platform_load_system();

#endif
