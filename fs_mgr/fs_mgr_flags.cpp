#include "fs_mgr/fs_mgr_flags.h"

#include <android-base/logging.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

// Rows are tried from the top and an option needs only to begin with the name, so a name that
// begins with another one stands before it (verifyatboot, verify). Vendors' tables count on the
// looseness: "avb=vbmeta" is avb.
const struct flag_list mount_flag_table[] = {
    {"noatime", MS_NOATIME},
    {"noexec", MS_NOEXEC},
    {"nosuid", MS_NOSUID},
    {"nodev", MS_NODEV},
    {"nodiratime", MS_NODIRATIME},
    {"ro", MS_RDONLY},
    {"rw", 0},
    {"remount", MS_REMOUNT},
    {"bind", MS_BIND},
    {"rec", MS_REC},
    {"unbindable", MS_UNBINDABLE},
    {"private", MS_PRIVATE},
    {"slave", MS_SLAVE},
    {"shared", MS_SHARED},
    {"defaults", 0},
    {nullptr, 0},
};

const struct flag_list fs_mgr_flag_table[] = {
    {"wait", mf_wait},
    {"check", mf_check},
    {"encryptable=", mf_encryptable},
    {"forceencrypt=", mf_forceencrypt},
    {"fileencryption=", mf_fileencryption},
    {"wrappedkey", mf_wrappedkey},
    {"forcefdeorfbe=", mf_forcefdeorfbe},
    {"keydirectory=", mf_keydirectory},
    {"nonremovable", mf_nonremovable},
    {"voldmanaged=", mf_voldmanaged},
    {"length=", mf_length},
    {"recoveryonly", mf_recoveryonly},
    {"swapprio=", mf_swapprio},
    {"zramsize=", mf_zramsize},
    {"max_comp_streams=", mf_max_comp_streams},
    {"verifyatboot", mf_verifyatboot},
    {"verify", mf_verify},
    {"avb", mf_avb},
    {"noemulatedsd", mf_noemulatedsd},
    {"notrim", mf_notrim},
    {"formattable", mf_formattable},
    {"slotselect", mf_slotselect},
    {"nofail", mf_nofail},
    {"latemount", mf_latemount},
    {"reservedsize=", mf_reservedsize},
    {"quota", mf_quota},
    {"eraseblk=", mf_eraseblk},
    {"logicalblk=", mf_logicalblk},
    {"sysfs_path=", mf_sysfs_path},
    {"defaults", 0},
    {nullptr, 0},
};

static const struct flag_list file_contents_mode_table[] = {
    {"aes-256-xts", encryption_mode_aes_256_xts},
    {"software", encryption_mode_aes_256_xts},  // the older name of aes-256-xts
    {"ice", encryption_mode_ice},
    {nullptr, 0},
};

static const struct flag_list file_names_mode_table[] = {
    {"aes-256-cts", encryption_mode_aes_256_cts},
    {"aes-256-heh", encryption_mode_aes_256_heh},
    {nullptr, 0},
};

// Unlike an option, a mode's name has to match as a whole: a cipher must not be guessed.
static uint32_t encryption_mode_to_flag(const struct flag_list *table, const char *name,
                                        const char *kind) {
    for (const struct flag_list *row = table; row->name != nullptr; ++row) {
        if (strcmp(row->name, name) == 0) {
            return row->value;
        }
    }
    LOG(ERROR) << "[libfs_mgr]"
               << "Unknown " << kind << " encryption mode: " << name;
    return encryption_mode_none;
}

// "contents:names", or "contents" alone, which leaves the names at their standard cipher.
static void parse_encryption_modes(struct fs_mgr_flag_values *values, char *value) {
    values->file_names_mode = encryption_mode_aes_256_cts;
    char *colon = strchr(value, ':');
    if (colon != nullptr) {
        *colon = '\0';
    }
    values->file_contents_mode =
        encryption_mode_to_flag(file_contents_mode_table, value, "file contents");
    if (colon != nullptr) {
        values->file_names_mode =
            encryption_mode_to_flag(file_names_mode_table, colon + 1, "file names");
    }
}

// A number in decimal, 0x hexadecimal or leading-0 octal, stored into 32 bits: what is above them
// is dropped, and text that is no number counts as 0.
static int32_t parse_number(const char *value) {
    return static_cast<int32_t>(strtoll(value, nullptr, 0));
}

// "label:number" or "label:auto".
static void parse_voldmanaged(struct fs_mgr_flag_values *values, const char *value) {
    const char *colon = strchr(value, ':');
    if (colon == nullptr) {
        LOG(ERROR) << "[libfs_mgr]"
                   << "Warning: voldmanaged= flag malformed";
        return;
    }
    values->label = strndup(value, static_cast<size_t>(colon - value));
    values->partnum = strcmp(colon + 1, "auto") == 0 ? -1 : parse_number(colon + 1);
}

// A size that wrapped would be taken for a small one without a word; the process ends instead.
static uint64_t multiply_or_abort(uint64_t a, uint64_t b) {
    uint64_t product;
    if (__builtin_mul_overflow(a, b, &product)) {
        abort();
    }
    return product;
}

uint32_t zram_percentage(uint32_t percent, uint64_t pages, uint64_t page_size) {
    const uint64_t wanted_pages = multiply_or_abort(pages, percent) / 100;
    // The table's field has 32 bits: from 4 GiB on, the size wraps, as its users have always
    // seen it.
    return static_cast<uint32_t>(multiply_or_abort(wanted_pages, page_size));
}

// Bytes, or a share of the physical memory when there is a "%".
static uint32_t parse_zram_size(const char *value) {
    const auto number = static_cast<uint32_t>(parse_number(value));
    if (strchr(value, '%') == nullptr) {
        return number;
    }
    return zram_percentage(number, static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)),
                           static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
}

// Decimal only, unlike the other numbers, with one letter directly after it for the unit.
static uint64_t parse_reserved_size(const char *value) {
    char *unit = nullptr;
    const uint64_t number = strtoull(value, &unit, 10);
    switch (*unit) {
        case 'G':
        case 'g':
            return multiply_or_abort(number, UINT64_C(1) << 30);
        case 'M':
        case 'm':
            return multiply_or_abort(number, UINT64_C(1) << 20);
        case 'K':
        case 'k':
            return multiply_or_abort(number, UINT64_C(1) << 10);
        default:
            return number;
    }
}

// Flash geometry: anything but a power of two from one page on leaves the field as it is.
static void parse_block_size(uint32_t *size, const char *value) {
    const auto number = static_cast<uint32_t>(strtoull(value, nullptr, 0));
    if (number >= 4096 && (number & (number - 1)) == 0) {
        *size = number;
    }
}

// Stores what follows the first "=" of an option that matched the row with this bit. A copy that
// an earlier option of the line left is replaced and not released: a table is loaded once.
static void apply_value(struct fs_mgr_flag_values *values, uint32_t bit, char *option) {
    char *value = strchr(option, '=');
    if (value == nullptr) {
        return;  // rows that need a value end in "="; of the others only verify may carry one
    }
    ++value;
    switch (bit) {
        case mf_encryptable:
        case mf_forceencrypt:
            values->key_loc = strdup(value);
            break;
        case mf_forcefdeorfbe:
            values->key_loc = strdup(value);
            values->file_contents_mode = encryption_mode_aes_256_xts;
            values->file_names_mode = encryption_mode_aes_256_cts;
            break;
        case mf_fileencryption:
            parse_encryption_modes(values, value);
            break;
        case mf_keydirectory:
            values->key_dir = strdup(value);
            break;
        case mf_verify:
            values->verity_loc = strdup(value);
            break;
        case mf_sysfs_path:
            values->sysfs_path = strdup(value);
            break;
        case mf_voldmanaged:
            parse_voldmanaged(values, value);
            break;
        case mf_length:
            values->length = strtoll(value, nullptr, 0);
            break;
        case mf_swapprio:
            values->swap_prio = parse_number(value);
            break;
        case mf_max_comp_streams:
            values->max_comp_streams = parse_number(value);
            break;
        case mf_zramsize:
            values->zram_size = parse_zram_size(value);
            break;
        case mf_reservedsize:
            values->reserved_size = parse_reserved_size(value);
            break;
        case mf_eraseblk:
            parse_block_size(&values->erase_blk_size, value);
            break;
        case mf_logicalblk:
            parse_block_size(&values->logical_blk_size, value);
            break;
        default:
            break;
    }
}

// Appends text to the string in buffer, as much of it as the size bytes hold.
static void append_bounded(char *buffer, size_t size, const char *text) {
    const size_t used = strnlen(buffer, size);
    snprintf(buffer + used, size - used, "%s", text);
}

static const struct flag_list *find_row(const struct flag_list *table, const char *option) {
    const struct flag_list *row = table;
    while (row->name != nullptr && strncmp(option, row->name, strlen(row->name)) != 0) {
        ++row;
    }
    return row->name != nullptr ? row : nullptr;
}

int32_t parse_flags(char *options, const struct flag_list *table, struct fs_mgr_flag_values *values,
                    char *passthrough, size_t size) {
    if (values != nullptr) {
        *values = {};
        values->partnum = -1;
        values->swap_prio = -1;
    }
    if (passthrough != nullptr && size >= 1) {
        passthrough[0] = '\0';
    }

    uint32_t flags = 0;
    // The caller is in the middle of cutting the line into fields, so the position is our own.
    char *rest = nullptr;
    for (char *option = strtok_r(options, ",", &rest); option != nullptr;
         option = strtok_r(nullptr, ",", &rest)) {
        const struct flag_list *row = find_row(table, option);
        if (row != nullptr) {
            if (values != nullptr) {
                apply_value(values, row->value, option);
            }
            flags |= row->value;
        } else if (passthrough != nullptr) {
            append_bounded(passthrough, size, option);
            append_bounded(passthrough, size, ",");
        } else {
            LOG(ERROR) << "[libfs_mgr]"
                       << "Warning: unknown flag " << option;
        }
    }

    // The trailing ",", or, when the buffer was too short to take it, the last character of what
    // is cut off anyway.
    const size_t kept = passthrough != nullptr ? strnlen(passthrough, size) : 0;
    if (kept > 0) {
        passthrough[kept - 1] = '\0';
    }
    return static_cast<int32_t>(flags);
}
