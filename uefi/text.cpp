#include "uefi/text.h"

#include "uefi/firmware.h"

static void add_character(struct text *text, char character) {
    if (text->length < text->size) {
        text->start[text->length++] = character;
    }
}

static void add_number(struct text *text, uint64_t value, unsigned base, unsigned digits) {
    char reversed[20];
    unsigned count = 0;
    for (; value != 0 || count < digits; value /= base) {
        reversed[count++] = "0123456789abcdef"[value % base];
    }
    while (count > 0) {
        add_character(text, reversed[--count]);
    }
}

void add_part(struct text *text, const char *part) {
    for (; *part != 0; ++part) {
        add_character(text, *part);
    }
}

void add_part(struct text *text, const char16_t *part) {
    for (; *part != 0; ++part) {
        add_character(text, *part >= ' ' && *part <= '~' ? static_cast<char>(*part) : '?');
    }
}

void add_part(struct text *text, struct decimal part) {
    add_number(text, part.value, 10, part.digits);
}

void add_part(struct text *text, struct hex part) {
    add_part(text, "0x");
    add_number(text, part.value, 16, 1);
}

void print_line(const struct text *line) {
    char16_t wide[260];
    size_t length = 0;
    for (; length < line->length && length < 256; ++length) {
        wide[length] = static_cast<unsigned char>(line->start[length]);
    }
    wide[length++] = '\r';
    wide[length++] = '\n';
    wide[length] = 0;
    firmware->console_out->output_string(firmware->console_out, wide);
}
