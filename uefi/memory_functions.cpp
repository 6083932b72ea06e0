// The four functions that compilers call in any program. The dump's copy goes through memcpy: 64
// bytes a turn, in pairs of registers.
#include <stddef.h>
#include <stdint.h>

extern "C" {

void *memcpy(void *to, const void *from, size_t length) {
    auto *out = static_cast<unsigned char *>(to);
    const auto *in = static_cast<const unsigned char *>(from);
    uint64_t words[8];
    for (; length >= sizeof(words); length -= sizeof(words)) {
        for (size_t i = 0; i < 8; ++i) {
            __builtin_memcpy(&words[i], in + i * sizeof(uint64_t), sizeof(uint64_t));
        }
        for (size_t i = 0; i < 8; ++i) {
            __builtin_memcpy(out + i * sizeof(uint64_t), &words[i], sizeof(uint64_t));
        }
        in += sizeof(words);
        out += sizeof(words);
    }
    for (; length >= sizeof(uint64_t); length -= sizeof(uint64_t)) {
        uint64_t word;
        __builtin_memcpy(&word, in, sizeof(word));
        __builtin_memcpy(out, &word, sizeof(word));
        in += sizeof(word);
        out += sizeof(word);
    }
    for (; length > 0; --length) {
        *out++ = *in++;
    }
    return to;
}

void *memmove(void *to, const void *from, size_t length) {
    auto *out = static_cast<unsigned char *>(to);
    const auto *in = static_cast<const unsigned char *>(from);
    if (out <= in || out >= in + length) {
        return memcpy(to, from, length);
    }
    while (length > 0) {
        --length;
        out[length] = in[length];
    }
    return to;
}

void *memset(void *to, int value, size_t length) {
    auto *out = static_cast<unsigned char *>(to);
    for (; length > 0; --length) {
        *out++ = static_cast<unsigned char>(value);
    }
    return to;
}

int memcmp(const void *a, const void *b, size_t length) {
    const auto *left = static_cast<const unsigned char *>(a);
    const auto *right = static_cast<const unsigned char *>(b);
    for (; length > 0; --length, ++left, ++right) {
        if (*left != *right) {
            return *left < *right ? -1 : 1;
        }
    }
    return 0;
}
}
