// The device's say on whether it dumps its memory.
#ifndef TARNIX_CONFIG_DUMP_GATES_H
#define TARNIX_CONFIG_DUMP_GATES_H

// Whether this device may dump: "ro.sf" is not 1 and "ro.boot.qorramdump" is exactly 1. Logs what
// it finds. A device that may not is in order: its programs end with status 0.
bool dumps_are_allowed();

#endif
