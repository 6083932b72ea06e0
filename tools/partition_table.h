// Finds partitions by name in the GPT of a whole disk.
//
// Read here and not by a library, since those leave out a partition that lies wrong without a word,
// and refuse the table of a copy that was cut short.
#ifndef TARNIX_TOOLS_PARTITION_TABLE_H
#define TARNIX_TOOLS_PARTITION_TABLE_H

#include <string>
#include <vector>

#include "tools/image_file.h"

struct partition_entry {
    std::string name;  // "?" for each character that is not ASCII
    uint64_t start;    // byte offset on the disk
    uint64_t end;      // of the byte behind it
};

struct partition_table {
    std::string path;    // of the disk's image
    uint64_t disk_size;  // bytes of the disk that the table was made for
    std::vector<struct partition_entry> entries;
};

// Reads the table at the disk's start or, where that is damaged, the one at its end. False with
// *error saying what to do.
bool read_partition_table(const struct partition_place &disk, struct partition_table *table,
                          std::string *error);

// Finds the one partition of this name. False with *error where there is none or more than one, or
// where it does not lie on the disk; one that the copy has only in part is found.
bool find_partition(const struct partition_place &disk, const struct partition_table &table,
                    const std::string &name, struct partition_place *found, std::string *error);

#endif
