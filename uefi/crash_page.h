// The page by which the system and the boot side tell a crash from a start: reserved, so that
// nobody writes into it, and kept over a reset.
//
//   offset  width  field  meaning
//        0      8  armed  crash_page_armed while the system runs: it writes it early in its start,
//                         and 0 when it shuts down or reboots in order. So a panic, a hang that
//                         ends in a reset and a watchdog leave it armed.
//        8      8  tries  starts in a row at which it was found armed, and a dump was tried. The
//                         boot side counts; the system writes 0 once it is up.
//
// After power-on the page holds anything.
#ifndef TARNIX_UEFI_CRASH_PAGE_H
#define TARNIX_UEFI_CRASH_PAGE_H

#include <stdint.h>

struct crash_page {
    uint64_t armed, tries;
};

// The bytes "tarnixUp".
constexpr uint64_t crash_page_armed = 0x705578696e726174;

// After so many tries in a row the system is started without another one, so that a crash of the
// boot side itself, or of each start after it, does not go on for ever.
constexpr uint64_t crash_page_most_tries = 3;

// Whether the system crashed and a dump is to be tried, which is then counted. Says which on the
// console. The page stays armed for the try.
bool crash_page_take(struct crash_page *page);

// Before the system starts: it arms the page itself.
void crash_page_disarm(struct crash_page *page);

#endif
