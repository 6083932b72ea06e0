#include "uefi/device_tree.h"

// The format (devicetree.org, version 17): numbers are big-endian; the structure is a row of words,
// each one of these, with what belongs to it.
enum : uint32_t {
    tree_magic = 0xd00dfeed,
    begin_node = 1,  // a name with its zero byte, filled up to a word
    end_node = 2,
    property = 3,  // length, place of the name among the strings, the value, filled up to a word
    no_operation = 4
};

struct property_value {
    const char *name;
    const unsigned char *value;
    uint32_t length;
};

// A reading of the structure. Everything is checked against `end`, since a tree may be cut short.
struct tree_reader {
    const unsigned char *at, *end, *strings, *strings_end;
};

static uint32_t number_at(const unsigned char *bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

static uint64_t cells_at(const unsigned char *bytes, uint32_t cells) {
    uint64_t value = 0;
    for (uint32_t i = 0; i < cells; ++i) {
        value = value << 32 | number_at(bytes + size_t{4} * i);
    }
    return value;
}

static bool same_text(const char *a, const char *b) {
    while (*a != 0 && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

static size_t length_of(const char *text) {
    size_t length = 0;
    while (text[length] != 0) {
        ++length;
    }
    return length;
}

// Takes `length` bytes and what fills them up to a word; null when there are fewer.
static const unsigned char *take(struct tree_reader *reader, size_t length) {
    const unsigned char *taken = reader->at;
    const size_t left = static_cast<size_t>(reader->end - taken);
    if (length > left || (length + 3) / 4 * 4 > left) {
        return nullptr;
    }
    reader->at += (length + 3) / 4 * 4;
    return taken;
}

// A text that ends before `end`, or null.
static const char *text_at(const unsigned char *start, const unsigned char *end) {
    for (const unsigned char *at = start; at < end; ++at) {
        if (*at == 0) {
            return reinterpret_cast<const char *>(start);
        }
    }
    return nullptr;
}

static bool read_property(struct tree_reader *reader, struct property_value *found) {
    const unsigned char *head = take(reader, 8);
    if (head == nullptr) {
        return false;
    }
    const uint32_t name = number_at(head + 4);
    if (name >= static_cast<size_t>(reader->strings_end - reader->strings)) {
        return false;
    }
    found->length = number_at(head);
    found->name = text_at(reader->strings + name, reader->strings_end);
    found->value = take(reader, found->length);
    return found->name != nullptr && found->value != nullptr;
}

static bool open_tree(const void *tree, struct tree_reader *reader) {
    const auto *start = static_cast<const unsigned char *>(tree);
    if (start == nullptr || number_at(start) != tree_magic) {
        return false;
    }
    const uint32_t total = number_at(start + 4);
    const uint32_t structure = number_at(start + 8);
    const uint32_t strings = number_at(start + 12);
    if (structure > total || strings > total) {
        return false;
    }
    *reader = {start + structure, start + total, start + strings, start + total};
    return true;
}

// One node below /reserved-memory, as its properties have told so far.
struct reserved_node {
    struct memory_range range;
    bool is_log, is_crash_page;
};

static void note_property(const struct property_value *found, uint32_t address_cells,
                          uint32_t size_cells, struct reserved_node *node) {
    if (same_text(found->name, "reg") && address_cells <= 2 && size_cells <= 2 &&
        found->length >= 4 * (address_cells + size_cells)) {
        node->range = {cells_at(found->value, address_cells),
                       cells_at(found->value + size_t{4} * address_cells, size_cells)};
    } else if (same_text(found->name, "compatible")) {
        const char *compatible = text_at(found->value, found->value + found->length);
        node->is_log = compatible != nullptr && same_text(compatible, "ramoops");
        node->is_crash_page = compatible != nullptr && same_text(compatible, "tarnix,crash-page");
    }
}

static void note_node(const struct reserved_node *node, struct reserved_memory *found) {
    if (node->range.size == 0) {
        return;  // reserved wherever the system likes, not at an address
    }
    if (found->node_count < sizeof(found->nodes) / sizeof(found->nodes[0])) {
        found->nodes[found->node_count++] = node->range;
    }
    if (node->is_log && found->log_count < sizeof(found->logs) / sizeof(found->logs[0])) {
        found->logs[found->log_count++] = node->range;
    }
    if (node->is_crash_page) {
        found->crash_page = node->range;
    }
}

struct reserved_memory find_reserved_memory(const void *tree) {
    struct reserved_memory found = {};
    struct tree_reader reader;
    if (!open_tree(tree, &reader)) {
        return found;
    }
    uint32_t depth = 0;  // 1: the root; 2: its nodes; 3: theirs
    bool inside = false;
    uint32_t address_cells = 2;
    uint32_t size_cells = 1;
    struct reserved_node node = {};
    const unsigned char *word;
    while ((word = take(&reader, 4)) != nullptr) {
        struct property_value value;
        switch (number_at(word)) {
            case begin_node: {
                const char *name = text_at(reader.at, reader.end);
                if (name == nullptr) {
                    return found;
                }
                take(&reader, length_of(name) + 1);
                ++depth;
                if (depth == 2) {
                    inside = same_text(name, "reserved-memory");
                } else if (depth == 3) {
                    node = {};
                }
                break;
            }
            case end_node:
                if (inside && depth == 3) {
                    note_node(&node, &found);
                }
                if (depth == 0) {
                    return found;
                }
                --depth;
                break;
            case property:
                if (!read_property(&reader, &value)) {
                    return found;
                }
                if (inside && depth == 2 && value.length == 4) {
                    if (same_text(value.name, "#address-cells")) {
                        address_cells = number_at(value.value);
                    } else if (same_text(value.name, "#size-cells")) {
                        size_cells = number_at(value.value);
                    }
                } else if (inside && depth == 3) {
                    note_property(&value, address_cells, size_cells, &node);
                }
                break;
            case no_operation:
                break;
            default:
                return found;  // the end, or nothing that a tree has
        }
    }
    return found;
}
