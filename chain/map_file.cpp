#include "chain/map_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "chain/available_space.h"
#include "chain/progress.h"
#include "chain/transfer.h"
#include "config/log.h"

const char default_map_path[] = "/data/vendor/ramdump/ramdump.map";

static const size_t chunk_size = 65536;
static const int chunks_per_progress_line = 256;

// Writes `size` bytes of 0xFF. Every block has to be written: only then does the file system give
// it a place on the device, and the chain is made of these places.
static int fill_file(int fd, const uint8_t *chunk, uint64_t size) {
    const int count = static_cast<int>(size / chunk_size);
    for (int i = 0; i < count; ++i) {
        if (show_progress == 1 && i % chunks_per_progress_line == 0) {
            log_info("%d/%d\n", i, count);
        }
        if (write_retry(fd, chunk, chunk_size) == -1) {
            return -1;
        }
    }
    if (write_retry(fd, chunk, size % chunk_size) == -1) {
        return -1;
    }
    if (show_progress == 1) {
        log_info("%d/%d\n", count, count);
    }
    return 0;
}

int create_file(const char *path, uint64_t size) {
    // Before the open, which empties an old map file of this name: its space counts as used.
    const uint64_t available = get_directory_available_space(path);
    if (available < size) {
        log_error(
            "%s: Not enough space available to create ramdump file: %s, avail space: %lu, "
            "requested size: %lu\n",
            __func__, path, available, size);
        return -1;
    }
    // A failure from here on leaves the descriptor open: the run ends next, and closes it.
    const int fd = open_retry(path, O_WRONLY | O_CREAT | O_TRUNC, 0660);
    if (fd == -1) {
        log_error("failed to open file:%s for writing: %s\n", path, strerror(errno));
        return -1;
    }
    const std::unique_ptr<uint8_t[]> chunk(new (std::nothrow) uint8_t[chunk_size]);
    if (chunk == nullptr) {
        log_error("failed to allocate block buffer\n");
        return -1;
    }
    // After the open, on purpose: a request for size 0 empties the old map file too.
    if (size == 0) {
        log_error("auto create is not supported yet!!\n");
        return -1;
    }
    log_info("Creating reserved area %zd bytes\n", static_cast<ssize_t>(size));
    memset(chunk.get(), 0xFF, chunk_size);
    if (fill_file(fd, chunk.get(), size) == -1) {
        return -1;
    }
    (void)TEMP_FAILURE_RETRY(fsync(fd));
    close(fd);
    return 0;
}
