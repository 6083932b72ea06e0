// Text that is put together piece by piece: add(&line, "block ", decimal{7}, ", at ", hex{28672}).
#ifndef TARNIX_UEFI_TEXT_H
#define TARNIX_UEFI_TEXT_H

#include <stddef.h>
#include <stdint.h>

// What does not fit is dropped. No zero byte at the end.
struct text {
    char *start;
    size_t size, length;
};

struct decimal {
    uint64_t value;
    unsigned digits = 1;  // at least so many, with leading zeros
};

// With 0x before it.
struct hex {
    uint64_t value;
};

void add_part(struct text *text, const char *part);
void add_part(struct text *text, const char16_t *part);  // what is not ASCII becomes a "?"
void add_part(struct text *text, struct decimal part);
void add_part(struct text *text, struct hex part);

template <typename... Parts>
void add(struct text *text, const Parts &...parts) {
    (add_part(text, parts), ...);
}

// Prints one line on the firmware's console, with the application's name before it.
void print_line(const struct text *line);

template <typename... Parts>
void say(const Parts &...parts) {
    char room[240];
    struct text line = {room, sizeof(room), 0};
    add(&line, "ramdump: ", parts...);
    print_line(&line);
}

#endif
