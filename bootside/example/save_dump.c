#include "bootside/example/save_dump.h"

static void say_number(printer print, const char *name, uint64_t value) {
    char digits[] = "0000000000000000";
    for (int i = 15; i >= 0; --i) {
        digits[i] = "0123456789abcdef"[value % 16];
        value /= 16;
    }
    print(name);
    print(digits);
}

/* Whether the chain or a callback failed: walk.fault then says where. Else it is a refusal. */
static int has_fault(enum bootside_result result) {
    return result != bootside_ok && result <= bootside_block_twice;
}

static void say(printer print, const char *name, enum bootside_result result,
                const struct bootside_fault *fault) {
    print("ramdump: ");
    print(name);
    print(": ");
    print(bootside_result_text(result));
    if (has_fault(result)) {
        say_number(print, "\nramdump: position 0x", fault->position);
        say_number(print, " block 0x", fault->block);
        print(fault->in_misc ? " misc" : " data");
        say_number(print, " byte 0x", fault->offset);
        say_number(print, " expected 0x", fault->expected);
        say_number(print, " found 0x", fault->found);
    }
    print("\n");
}

int save_dump(const struct bootside_port *port, const struct region *regions, size_t count,
              printer print) {
    struct bootside boot;
    enum bootside_result result = bootside_open(&boot, port);
    if (result == bootside_ok) {
        result = bootside_begin_dump(&boot, 0);
    }
    for (size_t i = 0; i < count && result == bootside_ok; ++i) {
        result = bootside_begin_file(&boot, regions[i].name, regions[i].size);
        if (result != bootside_ok && !has_fault(result)) {
            say(print, regions[i].name, result, &boot.walk.fault);
            result = bootside_ok; /* refused: the next region may be accepted */
            continue;
        }
        if (result == bootside_ok) {
            result = bootside_write(&boot, regions[i].start, regions[i].size);
        }
    }
    if (result == bootside_ok) {
        result = bootside_finish(&boot);
    }
    if (result != bootside_ok) {
        say(print, "not saved", result, &boot.walk.fault);
        return -1;
    }
    print("ramdump: saved\n");
    return 0;
}
