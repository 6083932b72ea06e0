#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "tools/chain_access.h"
#include "tools/commands.h"
#include "tools/progress_bar.h"

struct input_file {
    std::string name;
    std::string path;
    std::unique_ptr<FILE, int (*)(FILE *)> stream;
    uint64_t size;
};

// Opens NAME=FILE. Returns exit_good, or what to exit with.
static int open_input(const std::string &text, const std::vector<struct input_file> &earlier,
                      struct input_file *file) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        fmt::print(stderr, "tarnix-chain: {}: a file to write is given as NAME=FILE\n", text);
        return exit_usage;
    }
    file->name = text.substr(0, equals);
    file->path = text.substr(equals + 1);
    for (const struct input_file &other : earlier) {
        if (other.name == file->name) {
            fmt::print(stderr,
                       "tarnix-chain: the name {} is given twice; the device would keep "
                       "only the last\n",
                       file->name);
            return exit_usage;
        }
    }
    struct stat status = {};
    const int fd = open(file->path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    file->stream.reset(fd < 0 ? nullptr : fdopen(fd, "rb"));
    if (file->stream == nullptr || fstat(fd, &status) != 0) {
        fmt::print(stderr, "tarnix-chain: cannot open {}: {}; name a file that can be read\n",
                   file->path, strerror(errno));
        return exit_unreadable;
    }
    if (!S_ISREG(status.st_mode)) {
        fmt::print(stderr,
                   "tarnix-chain: {} is not a regular file; its size must be known before "
                   "it is written, so copy it into a file\n",
                   file->path);
        return exit_unreadable;
    }
    file->size = static_cast<uint64_t>(status.st_size);
    const enum bootside_result result = bootside_check_file(file->name.c_str(), file->size);
    if (result != bootside_ok) {
        fmt::print(stderr, "tarnix-chain: {}: {}; nothing was written\n", text,
                   bootside_result_text(result));
        return exit_not_whole;
    }
    return exit_good;
}

// What the user can do once the chain has been found whole, and something else went wrong.
static const char *next_step_of_write(enum bootside_result result) {
    switch (result) {
        case bootside_dump_pending:
            return "save it with pull, then write with --replace";
        case bootside_does_not_fit:
            return "leave a file out, or have the device make a larger map";
        case bootside_data_missing:
            return "write again, with --replace, once the file no longer changes";
        case bootside_write_failed:
        case bootside_flush_failed:
            return "make room or take a copy of the image, and write again with --replace";
        default:
            return "see that nothing else uses the image, and write again with --replace";
    }
}

static int refuse(enum bootside_result result, const std::string &detail) {
    fmt::print(stderr, "tarnix-chain: {}{}; nothing was written\ntarnix-chain: next: {}\n",
               bootside_result_text(result), detail, next_step_of_write(result));
    return exit_not_whole;
}

// Everything that can be judged before the first byte is written.
static int check_dump(struct bootside *boot, const std::vector<struct input_file> &files,
                      bool replace) {
    std::vector<uint64_t> sizes;
    sizes.reserve(files.size());
    for (const struct input_file &file : files) {
        sizes.push_back(file.size);
    }
    const uint64_t need = bootside_need(boot, sizes.data(), sizes.size());
    const uint64_t capacity = bootside_capacity(boot);
    if (need > capacity) {
        return refuse(bootside_does_not_fit,
                      fmt::format(": the dump needs {} bytes, the chain has {}", need, capacity));
    }
    const enum bootside_result result = bootside_begin_dump(boot, replace ? 1 : 0);
    return result == bootside_ok ? exit_good : refuse(result, "");
}

static enum bootside_result copy_file(struct bootside *boot, const struct input_file &file,
                                      std::string *error) {
    enum bootside_result result = bootside_begin_file(boot, file.name.c_str(), file.size);
    std::vector<unsigned char> piece(1048576);
    uint64_t left = file.size;
    while (result == bootside_ok && left > 0) {
        const size_t wanted = left < piece.size() ? static_cast<size_t>(left) : piece.size();
        FILE *const stream = file.stream.get();
        if (fread(piece.data(), 1, wanted, stream) != wanted) {
            *error = fmt::format("cannot read {} at byte {}: {}", file.path, file.size - left,
                                 ferror(stream) != 0 ? strerror(errno) : "it has become shorter");
            return bootside_data_missing;
        }
        left -= wanted;
        result = bootside_write(boot, piece.data(), wanted);
    }
    return result;
}

static int write_dump(struct disk_image *image, struct bootside *boot,
                      const std::vector<struct input_file> &files) {
    enum bootside_result result = bootside_ok;
    uint64_t total = 0;
    for (const struct input_file &file : files) {
        total += file.size;
    }
    image->error.clear();
    progress_begin(image, "writing", total);
    for (const struct input_file &file : files) {
        if (result == bootside_ok) {
            result = copy_file(boot, file, &image->error);
        }
    }
    if (result == bootside_ok) {
        result = bootside_finish(boot);
    }
    progress_end(image);
    if (result == bootside_ok) {
        fmt::print("{}, {} written; the dump is pending\n", counted(files.size(), "file"),
                   counted(total, "byte"));
        return exit_good;
    }
    fmt::print(stderr, "tarnix-chain: {}\ntarnix-chain: {}\ntarnix-chain: next: {}\n",
               bootside_result_text(result),
               image->error.empty() ? describe_verdict(*image, {result, boot->walk}) : image->error,
               next_step_of_write(result));
    return exit_unreadable;
}

int write_command(struct disk_image *image, const std::vector<std::string> &texts, bool replace) {
    std::vector<struct input_file> files;
    int status = exit_good;
    for (size_t i = 0; i < texts.size() && status == exit_good; ++i) {
        struct input_file file = {"", "", {nullptr, fclose}, 0};
        status = open_input(texts[i], files, &file);
        files.push_back(std::move(file));
    }
    struct bootside boot = {};
    if (status == exit_good) {
        const enum bootside_result result = open_chain(image, &boot);
        status = result == bootside_ok ? check_dump(&boot, files, replace)
                                       : report_failure(*image, {result, boot.walk});
    }
    if (status == exit_good) {
        status = write_dump(image, &boot, files);
    }
    return status;
}
