#include "fs_mgr/fs_mgr_fstab.h"

#include <android-base/logging.h>
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include "fs_mgr/fs_mgr_boot_config.h"
#include "fs_mgr/fs_mgr_flags.h"

// Read instead of a table that cannot be opened; relative to the working directory.
static const char default_fstab[] = "fstab.qcom";

// Reads on to the next line that holds an entry: not blank and not a comment. The line is in
// *line, which grows as needed and which the caller releases after the last call.
// False at the end of the stream.
static bool read_entry_line(FILE *stream, char **line, size_t *capacity) {
    ssize_t length;
    while ((length = getline(line, capacity, stream)) != -1) {
        if ((*line)[length - 1] == '\n') {
            (*line)[length - 1] = '\0';
        }
        const char *first = *line;
        while (isspace(static_cast<unsigned char>(*first)) != 0) {
            ++first;
        }
        if (*first != '\0' && *first != '#') {
            return true;
        }
    }
    return false;
}

// The next field of a line (line itself for the first one, null after it), or null when there is
// none left, which is logged as missing says. Only blanks and tabs separate fields.
static char *next_field(char *line, char **rest, const char *missing) {
    char *field = strtok_r(line, " \t", rest);
    if (field == nullptr) {
        LOG(ERROR) << "[libfs_mgr]" << missing;
    }
    return field;
}

static void copy_flag_values(struct fstab_rec *rec, const struct fs_mgr_flag_values *values) {
    rec->key_loc = values->key_loc;
    rec->key_dir = values->key_dir;
    rec->verity_loc = values->verity_loc;
    rec->length = values->length;
    rec->label = values->label;
    rec->partnum = values->partnum;
    rec->swap_prio = values->swap_prio;
    rec->max_comp_streams = values->max_comp_streams;
    rec->zram_size = values->zram_size;
    rec->reserved_size = values->reserved_size;
    rec->file_contents_mode = values->file_contents_mode;
    rec->file_names_mode = values->file_names_mode;
    rec->erase_blk_size = values->erase_blk_size;
    rec->logical_blk_size = values->logical_blk_size;
    rec->sysfs_path = values->sysfs_path;
}

static void parse_mount_options(struct fstab_rec *rec, char *field) {
    char fs_options[1024] = "";
    const int32_t flags =
        parse_flags(field, mount_flag_table, nullptr, fs_options, sizeof(fs_options));
    // Sign-extended, as mount(2)'s unsigned long has always received it.
    rec->mount_flags = static_cast<uint64_t>(static_cast<int64_t>(flags));
    rec->fs_options = fs_options[0] != '\0' ? strdup(fs_options) : nullptr;
}

static void parse_fs_mgr_options(struct fstab_rec *rec, char *field) {
    struct fs_mgr_flag_values values;
    rec->fs_mgr_flags = parse_flags(field, fs_mgr_flag_table, &values, nullptr, 0);
    copy_flag_values(rec, &values);
}

// Fills rec from one line, whatever follows its fifth field. On a missing field false; what was
// filled until then belongs to the table.
static bool parse_entry(struct fstab_rec *rec, char *line) {
    char *rest = nullptr;
    char *field = next_field(line, &rest, "Error parsing mount source");
    if (field == nullptr) {
        return false;
    }
    rec->blk_device = strdup(field);

    field = next_field(nullptr, &rest, "Error parsing mount_point");
    if (field == nullptr) {
        return false;
    }
    rec->mount_point = strdup(field);

    field = next_field(nullptr, &rest, "Error parsing fs_type");
    if (field == nullptr) {
        return false;
    }
    rec->fs_type = strdup(field);

    field = next_field(nullptr, &rest, "Error parsing mount_flags");
    if (field == nullptr) {
        return false;
    }
    parse_mount_options(rec, field);

    field = next_field(nullptr, &rest, "Error parsing fs_mgr_options");
    if (field == nullptr) {
        return false;
    }
    parse_fs_mgr_options(rec, field);
    return true;
}

// Fills the table's entries from the stream, and gives the slot-selected ones their suffix.
static bool parse_entries(FILE *stream, struct fstab *table, char **line, size_t *capacity) {
    int32_t index = 0;
    while (read_entry_line(stream, line, capacity)) {
        if (index == table->num_entries) {
            // The file grew since it was counted. What was counted is still good.
            LOG(ERROR) << "[libfs_mgr]"
                       << "Tried to process more entries than counted";
            break;
        }
        if (!parse_entry(&table->recs[index], *line)) {
            return false;
        }
        ++index;
    }
    if (!fs_mgr_update_for_slotselect(table)) {
        LOG(ERROR) << "[libfs_mgr]"
                   << "Error updating for slotselect";
        return false;
    }
    return true;
}

// Two passes, so that the entries are allocated once, at their exact number.
static struct fstab *fs_mgr_read_fstab_file(FILE *stream) {
    char *line = nullptr;
    size_t capacity = 0;
    int32_t count = 0;
    while (read_entry_line(stream, &line, &capacity)) {
        ++count;
    }

    struct fstab *table = nullptr;
    if (count == 0) {
        LOG(ERROR) << "[libfs_mgr]"
                   << "No entries found in fstab";
    } else {
        table = static_cast<struct fstab *>(calloc(1, sizeof(struct fstab)));
        table->num_entries = count;
        table->recs = static_cast<struct fstab_rec *>(
            calloc(static_cast<size_t>(count), sizeof(struct fstab_rec)));
        rewind(stream);
        if (!parse_entries(stream, table, &line, &capacity)) {
            fs_mgr_free_fstab(table);
            table = nullptr;
        }
    }
    free(line);
    return table;
}

struct fstab *fs_mgr_read_fstab(const char *path) {
    FILE *stream = fopen(path, "re");
    if (stream == nullptr) {
        PLOG(ERROR) << "[libfs_mgr]"
                    << "fs_mgr_read_fstab"
                    << "(): cannot open file: '" << path << "'";
        stream = fopen(default_fstab, "re");
    }
    if (stream == nullptr) {
        PLOG(ERROR) << "[libfs_mgr]"
                    << "fs_mgr_read_fstab"
                    << "(): cannot open default file: '" << default_fstab << "'";
        return nullptr;
    }

    struct fstab *table = fs_mgr_read_fstab_file(stream);
    if (table != nullptr) {
        table->fstab_filename = strdup(path);
    } else {
        LOG(ERROR) << "[libfs_mgr]"
                   << "fs_mgr_read_fstab"
                   << "(): failed to load fstab from : '" << path << "'";
    }
    fclose(stream);  // only read from: closing it has nothing left to report
    return table;
}

void fs_mgr_free_fstab(struct fstab *table) {
    if (table == nullptr) {
        return;
    }
    for (int32_t i = 0; i < table->num_entries; ++i) {
        struct fstab_rec *rec = &table->recs[i];
        free(rec->blk_device);
        free(rec->mount_point);
        free(rec->fs_type);
        free(rec->fs_options);
        free(rec->key_loc);
        free(rec->key_dir);
        free(rec->label);
        free(rec->sysfs_path);
        // verity_loc outlives the table: whoever sets up verity keeps the pointer.
    }
    free(table->recs);
    free(table->fstab_filename);
    free(table);
}

int32_t fs_mgr_is_encryptable(const struct fstab_rec *rec) {
    return rec->fs_mgr_flags &
           static_cast<int32_t>(mf_encryptable | mf_forceencrypt | mf_forcefdeorfbe);
}
