#include "tools/image_file.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

// How an image looks that has to be unpacked first. None of these can be the start of a partition
// table, of misc or of a file system.
static const struct {
    const char *magic;
    size_t length;
    const char *kind;
    const char *unpack;  // a command, the image's name in the place of {}
} packed_images[] = {
    {"\x1f\x8b", 2, "compressed with gzip", "gunzip -c {} > unpacked.img"},
    {"\x28\xb5\x2f\xfd", 4, "compressed with zstd", "zstd -dc {} > unpacked.img"},
    {"\xfd\x37zXZ", 6, "compressed with xz", "xz -dc {} > unpacked.img"},
    {"BZh", 3, "compressed with bzip2", "bunzip2 -c {} > unpacked.img"},
    {"\x04\x22\x4d\x18", 4, "compressed with lz4", "lz4 -dc {} > unpacked.img"},
    {"PK\x03\x04", 4, "a zip archive", "unzip {}"},
    {"\x3a\xff\x26\xed", 4, "an Android sparse image", "simg2img {} unpacked.img"},
};

// Why a file of this mode is no image, or null.
static const char *other_than_an_image(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
        case S_IFBLK:
            return nullptr;
        case S_IFDIR:
            return "a directory";
        case S_IFIFO:
            return "a pipe, which has no place to go back to";
        case S_IFSOCK:
            return "a socket";
        default:
            return "a character device";
    }
}

static bool is_unpacked(const struct partition_place &image, std::string *error) {
    char start[8] = {};
    // What cannot be read here shows where it is needed.
    const ssize_t length = pread(image.fd, start, sizeof(start), 0);
    for (const auto &packed : packed_images) {
        if (length == sizeof(start) && memcmp(start, packed.magic, packed.length) == 0) {
            *error = fmt::format("{} is {}; unpack it first: {}", image.path, packed.kind,
                                 fmt::format(fmt::runtime(packed.unpack), image.path));
            return false;
        }
    }
    return true;
}

bool open_image_file(const std::string &path, bool writable, struct partition_place *image,
                     std::string *error) {
    struct stat status = {};
    // Before it is opened too: a socket cannot be, and to open some devices does something.
    const char *other =
        stat(path.c_str(), &status) == 0 ? other_than_an_image(status.st_mode) : nullptr;
    image->path = path;
    if (other == nullptr) {
        // Exclusive on a block device: refused while a file system of it is mounted.
        const int exclusive = S_ISBLK(status.st_mode) ? O_EXCL : 0;
        image->fd =
            open(path.c_str(), (writable ? O_RDWR | exclusive : O_RDONLY) | O_NONBLOCK | O_CLOEXEC);
        if (image->fd >= 0 && fstat(image->fd, &status) == 0) {
            other = other_than_an_image(status.st_mode);
        }
    }
    if (other != nullptr) {
        *error = fmt::format("{} is {}; name an image file or a block device", path, other);
        return false;
    }
    const off_t end = image->fd < 0 ? -1 : lseek(image->fd, 0, SEEK_END);
    if (end < 0) {
        *error = fmt::format("cannot open {}: {}; {}", path, strerror(errno),
                             errno == EBUSY ? "unmount its file systems first"
                                            : "check the name, and that you may use it");
        return false;
    }
    if (end == 0) {
        *error = fmt::format("{} is empty; get it from the device anew", path);
        return false;
    }
    image->start = 0;
    image->size = static_cast<uint64_t>(end);
    image->whole_size = S_ISBLK(status.st_mode) ? image->size : 0;
    return S_ISBLK(status.st_mode) || is_unpacked(*image, error);
}
