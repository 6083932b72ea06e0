// Whether the log tells how far the work is.
#ifndef TARNIX_CHAIN_PROGRESS_H
#define TARNIX_CHAIN_PROGRESS_H

#include <stdint.h>

// 1 when the map file's creation and the chain writer log how far they are, else 0. Set by the
// driver (-p, -a, -s).
extern uint8_t show_progress;

#endif
