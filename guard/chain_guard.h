#ifndef TARNIX_GUARD_CHAIN_GUARD_H
#define TARNIX_GUARD_CHAIN_GUARD_H

// How the guard's work ended; the program's exit status.
enum guard_status {
    guard_done = 0,         // all was well, or is now
    guard_cannot_look = 1,  // or could not put right what it found; the service is started
    guard_bad_usage = 2,
    // A pending dump could not be read or stored, or somebody has to choose where from: nothing may
    // touch the chain.
    guard_refuses = 3,
    guard_cannot_start = 4,
};

// Looks whether the chain is still that of the map file at `map_path`; `every_header`: reads the
// whole chain, not only the ends of its runs. Pins a good map file. Of any other saves a pending
// dump, then clears the anchor and deletes the file. Says all it finds in the log, and in the
// property "vendor.tarnix.chain":
//
//   none    there is no anchor
//   good    the chain is the map file's
//   moved   the map file lies elsewhere, or is gone; the anchor's chain still verifies: all of it
//           where a dump is pending, else as much as is looked at, its first blocks
//   broken  it does not
//
// The property stays as it is when the guard cannot look.
enum guard_status guard_chain(const char *map_path, bool every_header);

#endif
