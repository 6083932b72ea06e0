#include "uefi/crash_page.h"

#include "uefi/text.h"

// The processor's caches do not outlive a reset: what is written must be in the RAM itself.
static void write_back(const struct crash_page *page) {
    asm volatile("dc civac, %0; dsb sy" ::"r"(page) : "memory");
}

bool crash_page_take(struct crash_page *page) {
    const bool crashed = page->armed == crash_page_armed;
    const uint64_t tries = crashed ? page->tries : 0;
    const bool tried_enough = tries >= crash_page_most_tries;
    if (!crashed) {
        say("no crash");
    } else if (tried_enough) {
        say("crashed again, and ", decimal{tries},
            " starts in a row have tried a dump: plain start, nothing is saved");
    } else {
        say("the system ended without a shutdown: panic, hang or watchdog; try ",
            decimal{tries + 1}, " of ", decimal{crash_page_most_tries});
    }
    // Armed until the dump has been tried: should the boot side hang, its watchdog comes back here.
    *page = {crashed && !tried_enough ? crash_page_armed : 0,
             crashed && !tried_enough ? tries + 1 : tries};
    write_back(page);
    return crashed && !tried_enough;
}

void crash_page_disarm(struct crash_page *page) {
    page->armed = 0;
    write_back(page);
}
