#include "tools/disk_image.h"

#include <errno.h>
#include <fmt/format.h>
#include <string.h>
#include <unistd.h>
#include <zlib.h>

#include "tools/partition_table.h"

// Large enough for every block length that the kit accepts, and for transfers at full speed.
static const size_t buffer_size = 1048576;

static struct disk_image *image_of(void *user) {
    return static_cast<struct disk_image *>(user);
}

std::string name_offset(const struct partition_place &partition, uint64_t offset) {
    return fmt::format("byte {} of {}", partition.start + offset, partition.path);
}

// Transfers all of `length` bytes. The end of the image inside a partition is a failure: the image
// has been cut short.
template <typename transfer_call>
static int transfer(struct disk_image *image, const struct partition_place &partition,
                    uint64_t offset, size_t length, const char *verb, transfer_call call) {
    size_t done = 0;
    while (done < length) {
        const ssize_t n = offset > partition.size || length > partition.size - offset
                              ? 0
                              : call(done, static_cast<off_t>(partition.start + offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            image->error = fmt::format(
                "cannot {} {} bytes at {}: {}", verb, length, name_offset(partition, offset),
                n < 0 ? strerror(errno) : "the image ends before; get it anew, whole");
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

static int read_partition(struct disk_image *image, const struct partition_place &from,
                          uint64_t offset, void *buffer, size_t length) {
    return transfer(image, from, offset, length, "read", [&](size_t done, off_t at) {
        return pread(from.fd, static_cast<char *>(buffer) + done, length - done, at);
    });
}

static int write_partition(struct disk_image *image, const struct partition_place &to,
                           uint64_t offset, const void *data, size_t length) {
    return transfer(image, to, offset, length, "write", [&](size_t done, off_t at) {
        return pwrite(to.fd, static_cast<const char *>(data) + done, length - done, at);
    });
}

static void count_transfer(struct disk_image *image, size_t length) {
    image->transferred += length;
    if (image->on_transfer != nullptr) {
        image->on_transfer(image->transferred);
    }
}

static int read_misc(void *user, uint64_t offset, void *buffer, size_t length) {
    return read_partition(image_of(user), image_of(user)->misc, offset, buffer, length);
}

static int write_misc(void *user, uint64_t offset, const void *data, size_t length) {
    return write_partition(image_of(user), image_of(user)->misc, offset, data, length);
}

static int read_data(void *user, uint64_t offset, void *buffer, size_t length) {
    count_transfer(image_of(user), length);
    return read_partition(image_of(user), image_of(user)->data, offset, buffer, length);
}

static int write_data(void *user, uint64_t offset, const void *data, size_t length) {
    count_transfer(image_of(user), length);
    return write_partition(image_of(user), image_of(user)->data, offset, data, length);
}

static int flush_images(void *user) {
    struct disk_image *image = image_of(user);
    for (const struct partition_place *partition : {&image->data, &image->misc}) {
        if (fdatasync(partition->fd) != 0) {
            image->error = fmt::format("cannot flush {}: {}", partition->path, strerror(errno));
            return -1;
        }
    }
    return 0;
}

static uint32_t zlib_crc32(void *, uint32_t crc, const void *data, size_t length) {
    return static_cast<uint32_t>(
        crc32(crc, static_cast<const Bytef *>(data), static_cast<uInt>(length)));
}

static bool open_disk(const struct image_options &options, bool writable, struct disk_image *image,
                      std::string *error) {
    struct partition_place disk = {-1, "", 0, 0, 0};
    const bool opened = open_image_file(options.disk, writable, &disk, error);
    image->misc.fd = disk.fd;
    struct partition_table table = {};
    return opened && read_partition_table(disk, &table, error) &&
           find_partition(disk, table, "misc", &image->misc, error) &&
           find_partition(disk, table, options.data_name, &image->data, error);
}

static void close_disk_image(struct disk_image *image) {
    if (image->data.fd != image->misc.fd && image->data.fd >= 0) {
        close(image->data.fd);
    }
    if (image->misc.fd >= 0) {
        close(image->misc.fd);
    }
    delete image;
}

owned_disk_image open_disk_image(const struct image_options &options, bool writable,
                                 std::string *error) {
    owned_disk_image image(new struct disk_image(), close_disk_image);
    image->misc.fd = image->data.fd = -1;
    const bool opened = options.disk.empty()
                            ? open_image_file(options.misc, writable, &image->misc, error) &&
                                  open_image_file(options.data, writable, &image->data, error)
                            : open_disk(options, writable, image.get(), error);
    if (!opened) {
        return {nullptr, close_disk_image};
    }
    image->buffer.resize(buffer_size);
    struct bootside_port *port = &image->port;
    port->user = image.get();
    port->read_misc = read_misc;
    port->write_misc = write_misc;
    port->read_data = read_data;
    port->write_data = write_data;
    port->flush = flush_images;
    port->crc32 = zlib_crc32;
    port->data_size = image->data.size;
    port->buffer = image->buffer.data();
    port->buffer_size = image->buffer.size();
    return image;
}
