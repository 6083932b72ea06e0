// Opens what the user names as an image, once it is known to be one.
#ifndef TARNIX_TOOLS_IMAGE_FILE_H
#define TARNIX_TOOLS_IMAGE_FILE_H

#include <stdint.h>

#include <string>

// A partition in an image file or on a block device, or such a file as a whole.
struct partition_place {
    int fd;               // the image's, -1 while it is not open; several places may share it
    std::string path;     // of the image
    uint64_t start;       // byte offset in the image
    uint64_t size;        // bytes that are there
    uint64_t whole_size;  // bytes of the partition on the device; 0 where nothing tells them. A
                          // copy that was cut short has fewer
};

// Opens a regular file or a block device, from its start to its end. False with *error saying what
// it is instead and what to do: nothing that would make the caller wait, and no compressed or
// sparse image. A block device that is to be written must not be in use. The caller closes
// image->fd, also after a failure, unless it is -1.
bool open_image_file(const std::string &path, bool writable, struct partition_place *image,
                     std::string *error);

#endif
