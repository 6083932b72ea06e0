// The misc and data partitions of a device: inside a whole-disk image or block device with a GPT,
// or as two files of their own.
#ifndef TARNIX_TOOLS_DISK_IMAGE_H
#define TARNIX_TOOLS_DISK_IMAGE_H

#include <memory>
#include <string>
#include <vector>

#include "bootside/bootside.h"
#include "tools/image_file.h"

// From the command line: either `disk`, or `misc` and `data`.
struct image_options {
    std::string disk;
    std::string misc;
    std::string data;
    std::string data_name;  // GPT name of the data partition on `disk`
};

// An opened pair with a port for bootside/ over it. `error` tells in words why the last transfer
// of the port failed; `transferred` counts the data partition's bytes.
struct disk_image {
    struct partition_place misc;
    struct partition_place data;
    std::string error;
    uint64_t transferred;
    void (*on_transfer)(uint64_t transferred);  // may be null
    std::vector<unsigned char> buffer;
    struct bootside_port port;
};

// Goes with its descriptors.
using owned_disk_image = std::unique_ptr<struct disk_image, void (*)(struct disk_image *)>;

// Opens the images. Null on failure with *error saying what to do; block devices that are to be
// written must not be in use.
owned_disk_image open_disk_image(const struct image_options &options, bool writable,
                                 std::string *error);

// "byte 4096 of disk.img": the place of a partition's byte in the file that the user has named.
std::string name_offset(const struct partition_place &partition, uint64_t offset);

#endif
