#include "tools/progress_bar.h"

#include <fmt/format.h>
#include <stdio.h>
#include <unistd.h>

static const uint64_t bar_width = 40;

// One bar at a time: there is one terminal.
static struct {
    const char *label;
    uint64_t total;
    uint64_t base;  // transferred before the bar began
    uint64_t percent;
} bar;

static void draw(uint64_t transferred) {
    const uint64_t done = transferred - bar.base;
    const uint64_t percent = done < bar.total ? done * 100 / bar.total : 100;
    if (percent == bar.percent) {
        return;
    }
    bar.percent = percent;
    const uint64_t filled = bar_width * percent / 100;
    fmt::print(stderr, "\r{} [{:#<{}}{:.<{}}] {:3}%", bar.label, "", filled, "", bar_width - filled,
               percent);
    fflush(stderr);
}

void progress_begin(struct disk_image *image, const char *label, uint64_t total) {
    if (isatty(STDERR_FILENO) != 0 && total != 0) {
        bar = {label, total, image->transferred, UINT64_MAX};
        image->on_transfer = draw;
    }
}

void progress_end(struct disk_image *image) {
    if (image->on_transfer != nullptr) {
        fmt::print(stderr, "\r\033[K");
        image->on_transfer = nullptr;
    }
}
