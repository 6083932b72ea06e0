/* A boot loader of the smallest kind, in C11, for QEMU's 64-bit Arm machine "virt". Its flash
 * begins at address 0 and holds nothing but this program. It saves that memory, from 0 on. Its
 * partitions are the files misc.img and data.img of the host's, reached by semihosting calls: a
 * device has its storage driver there. docs/porting.md tells how to build and run it. */
#include "bootside/example/save_dump.h"

enum host_call {
    host_open = 1,
    host_write_text = 4,
    host_write = 5,
    host_read = 6,
    host_seek = 10,
    host_length = 12,
    host_exit = 24
};

extern const unsigned char program_end[]; /* the linker's */

__asm__(
    ".section .text.start, \"ax\"\n"
    "ldr x0, =stack_end\n"
    "mov sp, x0\n"
    "b boot\n"
    ".text\n");

static int64_t call_host(enum host_call call, const void *arguments) {
    register int64_t x0 __asm__("x0") = call;
    register const void *x1 __asm__("x1") = arguments;
    __asm__ volatile("hlt 0xf000" : "+r"(x0) : "r"(x1) : "memory");
    return x0;
}

static void print(const char *text) {
    call_host(host_write_text, text);
}

/* The host's handle of a file. */
static uint64_t open_image(const char *name, uint64_t name_length) {
    const uint64_t read_and_write = 3;
    const uint64_t arguments[] = {(uintptr_t)name, read_and_write, name_length};
    return (uint64_t)call_host(host_open, arguments);
}

/* 0 when all has been moved. */
static int transfer(enum host_call call, uint64_t file, uint64_t offset, const void *memory,
                    size_t length) {
    const uint64_t place[] = {file, offset};
    const uint64_t arguments[] = {file, (uintptr_t)memory, length};
    return call_host(host_seek, place) != 0 || call_host(call, arguments) != 0;
}

struct images {
    uint64_t misc;
    uint64_t data;
};

static int read_misc(void *user, uint64_t offset, void *buffer, size_t length) {
    return transfer(host_read, ((struct images *)user)->misc, offset, buffer, length);
}

static int write_misc(void *user, uint64_t offset, const void *data, size_t length) {
    return transfer(host_write, ((struct images *)user)->misc, offset, data, length);
}

static int read_data(void *user, uint64_t offset, void *buffer, size_t length) {
    return transfer(host_read, ((struct images *)user)->data, offset, buffer, length);
}

static int write_data(void *user, uint64_t offset, const void *data, size_t length) {
    return transfer(host_write, ((struct images *)user)->data, offset, data, length);
}

static int flush(void *user) {
    (void)user; /* the host's files are whole when the machine has stopped */
    return 0;
}

static uint32_t crc32(void *user, uint32_t crc, const void *data, size_t length) {
    (void)user;
    crc = ~crc;
    for (const unsigned char *byte = data; length > 0; --length, ++byte) {
        crc ^= *byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ (crc % 2 != 0 ? 0xedb88320 : 0);
        }
    }
    return ~crc;
}

void *memcpy(void *to, const void *from, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        ((unsigned char *)to)[i] = ((const unsigned char *)from)[i];
    }
    return to;
}

void *memset(void *to, int value, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        ((unsigned char *)to)[i] = (unsigned char)value;
    }
    return to;
}

void boot(void) {
    static unsigned char buffer[65536];
    struct images images = {open_image("misc.img", 8), open_image("data.img", 8)};
    const struct bootside_port port = {.user = &images,
                                       .read_misc = read_misc,
                                       .write_misc = write_misc,
                                       .read_data = read_data,
                                       .write_data = write_data,
                                       .flush = flush,
                                       .crc32 = crc32,
                                       .data_size = (uint64_t)call_host(host_length, &images.data),
                                       .buffer = buffer,
                                       .buffer_size = sizeof(buffer)};
    const struct region regions[] = {{"flash.bin", NULL, (size_t)(uintptr_t)program_end}};
    const uint64_t application_exit = 0x20026;
    const int failed = save_dump(&port, regions, 1, print);
    const uint64_t reason[] = {application_exit, failed != 0};
    call_host(host_exit, reason);
}
