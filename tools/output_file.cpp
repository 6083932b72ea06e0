#include "tools/output_file.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

// What a signal removes. The name does not change while `directory` is one.
static struct {
    volatile sig_atomic_t directory;
    char name[NAME_MAX + 1];
} unfinished = {-1, ""};

static void remove_unfinished(int number) {
    if (unfinished.directory >= 0) {
        unlinkat(unfinished.directory, unfinished.name, 0);
    }
    raise(number);  // once more, now with its usual end: SA_RESETHAND
}

static void watch_signals() {
    static bool watched;
    if (watched) {
        return;
    }
    watched = true;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        // nohup and shells have signals ignored, and it stays so.
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            action = {};
            action.sa_handler = remove_unfinished;
            action.sa_flags = static_cast<int>(SA_RESETHAND);
            sigaction(number, &action, nullptr);
        }
    }
    // A file that grows too large is then an error of its own, EFBIG.
    signal(SIGXFSZ, SIG_IGN);
}

static void forget(struct output_file *file) {
    unfinished.directory = -1;
    file->stream = nullptr;
}

bool output_file_create(struct output_file *file, int directory, const std::string &name) {
    watch_signals();
    *file = {directory, fmt::format(".{}.{}.tmp", name, getpid()), nullptr};
    if (file->temporary.size() > NAME_MAX) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(unfinished.name, file->temporary.c_str(), file->temporary.size() + 1);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    unfinished.directory = directory;
    const int fd = openat(directory, file->temporary.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    file->stream = fd < 0 ? nullptr : fdopen(fd, "wb");
    if (file->stream == nullptr) {
        forget(file);
        return false;
    }
    setvbuf(file->stream, nullptr, _IOFBF, 1048576);
    return true;
}

bool output_file_write(struct output_file *file, const unsigned char *data, size_t length) {
    if (fwrite(data, 1, length, file->stream) == length) {
        return true;
    }
    const int error = errno;
    output_file_discard(file);
    errno = error;
    return false;
}

static bool give_name(const struct output_file &file, const std::string &name, bool replace) {
    const char *from = file.temporary.c_str();
    if (!replace) {
        if (renameat2(file.directory, from, file.directory, name.c_str(), RENAME_NOREPLACE) == 0) {
            return true;
        }
        // Not every file system can refuse by itself.
        if (errno != EINVAL && errno != ENOSYS) {
            return false;
        }
        if (faccessat(file.directory, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
            errno = EEXIST;
            return false;
        }
    }
    return renameat(file.directory, from, file.directory, name.c_str()) == 0;
}

bool output_file_finish(struct output_file *file, const std::string &name, bool replace) {
    if (fflush(file->stream) != 0 || fsync(fileno(file->stream)) != 0 ||
        !give_name(*file, name, replace)) {
        const int error = errno;
        output_file_discard(file);
        errno = error;
        return false;
    }
    // The bytes are on the medium: closing can lose nothing any more.
    (void)fclose(file->stream);
    forget(file);
    return true;
}

void output_file_discard(struct output_file *file) {
    if (file->stream != nullptr) {
        unlinkat(file->directory, file->temporary.c_str(), 0);
        // Whether the last bytes could be written does not matter any more.
        (void)fclose(file->stream);
        forget(file);
    }
}
