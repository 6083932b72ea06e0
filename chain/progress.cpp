#include "chain/progress.h"

uint8_t show_progress;
