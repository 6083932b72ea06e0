#include "tools/disk_image.h"

#include <blkid/blkid.h>
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

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

// Opens one image as a partition that fills it.
static bool open_whole(const std::string &path, bool writable, struct partition_place *partition,
                       std::string *error) {
    struct stat status = {};
    // Exclusive on a block device: refused while a file system of it is mounted.
    const bool device = stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
    const int flags = writable ? (device ? O_RDWR | O_EXCL : O_RDWR) : O_RDONLY;
    partition->path = path;
    partition->start = 0;
    partition->fd = open(path.c_str(), flags | O_CLOEXEC);
    const off_t end = partition->fd < 0 ? -1 : lseek(partition->fd, 0, SEEK_END);
    if (end < 0) {
        *error = fmt::format("cannot open {}: {}; {}", path, strerror(errno),
                             errno == EBUSY ? "unmount its file systems first"
                                            : "check the name, and that you may use it");
        return false;
    }
    partition->size = static_cast<uint64_t>(end);
    return true;
}

// Looks for the two names in a GPT with sectors of `sector_size` bytes. False when there is no
// GPT.
static bool read_gpt(const struct partition_place &disk, unsigned sector_size,
                     const std::string &data_name, struct partition_place *misc,
                     struct partition_place *data) {
    const std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(blkid_new_probe(),
                                                                                 blkid_free_probe);
    if (probe == nullptr || blkid_probe_set_device(probe.get(), disk.fd, 0, 0) != 0) {
        return false;
    }
    blkid_probe_set_sectorsize(probe.get(), sector_size);
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_partlist list = blkid_probe_get_partitions(probe.get());
    blkid_parttable table = list == nullptr ? nullptr : blkid_partlist_get_table(list);
    if (table == nullptr || strcmp(blkid_parttable_get_type(table), "gpt") != 0) {
        return false;
    }
    for (int i = 0; i < blkid_partlist_numof_partitions(list); ++i) {
        blkid_partition part = blkid_partlist_get_partition(list, i);
        const char *name = blkid_partition_get_name(part);
        if (name == nullptr || (data_name != name && strcmp(name, "misc") != 0)) {
            continue;
        }
        // libblkid counts in units of 512 bytes whatever the disk's sectors are.
        const auto start = static_cast<uint64_t>(blkid_partition_get_start(part));
        const auto size = static_cast<uint64_t>(blkid_partition_get_size(part));
        if (start < disk.size / 512 && size < UINT64_MAX / 1024) {
            *(data_name == name ? data : misc) = {disk.fd, disk.path, start * 512, size * 512};
        }
    }
    return true;
}

static bool open_disk(const struct image_options &options, bool writable, struct disk_image *image,
                      std::string *error) {
    struct partition_place disk = {};
    if (!open_whole(options.disk, writable, &disk, error)) {
        return false;
    }
    image->misc.fd = disk.fd;
    // An image file does not know its sector size; phones' disks have 4096, most others 512.
    if (!read_gpt(disk, 512, options.data_name, &image->misc, &image->data) &&
        !read_gpt(disk, 4096, options.data_name, &image->misc, &image->data)) {
        *error = fmt::format(
            "{} has no GPT with sectors of 512 or 4096 bytes, or it is cut short; get "
            "it anew, or give the partitions one by one with --misc and --data",
            options.disk);
        return false;
    }
    const bool no_misc = image->misc.size == 0;
    if (no_misc || image->data.size == 0) {
        *error = fmt::format("{}: its GPT has no partition named {}{}", options.disk,
                             no_misc ? "misc" : options.data_name,
                             no_misc ? "" : "; --data-name gives the name of the data partition");
        return false;
    }
    return true;
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
                            ? open_whole(options.misc, writable, &image->misc, error) &&
                                  open_whole(options.data, writable, &image->data, error)
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
