#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>

#include "chain/format/initial_block_header.h"
#include "tools/chain_access.h"
#include "tools/chain_json.h"
#include "tools/commands.h"
#include "tools/output_file.h"
#include "tools/progress_bar.h"
#include "tools/pull_report.h"
#include "tools/safe_name.h"

struct pull_state {
    struct disk_image *image;
    const struct pull_options *options;
    int directory;
    struct output_file out;                        // open while a file is written
    std::unique_ptr<FILE, int (*)(FILE *)> there;  // open while one is compared
    std::vector<struct pulled_file> files;         // of the dump, the current one last
    std::map<std::string, size_t> latest;          // name in the dump, index in `files`
    std::map<std::string, uint32_t> used;          // name, how often it was wanted
    std::set<std::string> written;                 // by this run: may be replaced
};

// The name to write under: the dump's own, made safe, and unlike that of any other file of the
// dump, whole or partial.
static std::string choose_name(struct pull_state *state, const std::string &name) {
    const std::string safe = safe_name(name);
    std::string chosen = safe;
    while (state->used.count(chosen) != 0 || state->used.count(chosen + partial_suffix) != 0) {
        chosen = fmt::format("{}~{}", safe, ++state->used[safe]);
    }
    state->used[chosen] = state->used[chosen + partial_suffix] = 1;
    return chosen;
}

static bool is_image(const struct pull_state &state, const std::string &name) {
    struct stat status;
    if (fstatat(state.directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    for (const int fd : {state.image->misc.fd, state.image->data.fd}) {
        struct stat image;
        if (fstat(fd, &image) == 0 && image.st_dev == status.st_dev &&
            image.st_ino == status.st_ino) {
            return true;
        }
    }
    return false;
}

// Opens what has the current file's name, to be compared, if it can be that file. False where
// nothing has the name.
static bool open_existing(struct pull_state *state) {
    struct pulled_file *current = &state->files.back();
    struct stat status = {};
    const int fd = openat(state->directory, current->name.c_str(),
                          O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    // One that may not be opened is there all the same.
    if (fd < 0 &&
        faccessat(state->directory, current->name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    state->there.reset(fd < 0 ? nullptr : fdopen(fd, "rb"));
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<uint64_t>(status.st_size) != current->file.size) {
        state->there.reset();
    }
    current->outcome = state->there != nullptr ? pull_already_there : pull_left_alone;
    return true;
}

// Of what may be wrong, only this is the one file's own: the next may still be written.
static bool can_go_on(int error) {
    return error == EFBIG || error == EINVAL || error == ENAMETOOLONG || error == EEXIST;
}

static bool fail(struct pull_state *state, int error) {
    state->files.back().outcome = pull_failed;
    state->files.back().error = strerror(error);
    return can_go_on(error);
}

static bool begin_file(struct pull_state *state, const struct dump_file &file) {
    const auto known = state->latest.find(file.name);
    std::string name;
    if (known != state->latest.end()) {
        name = state->files[known->second].name;
        state->files[known->second].outcome = pull_superseded;
    } else {
        name = choose_name(state, file.name);
    }
    state->latest[file.name] = state->files.size();
    state->files.push_back({file, name, pull_saved, ""});
    if (is_image(*state, name)) {
        state->files.back().outcome = pull_is_image;
        return true;
    }
    const bool replace = state->options->force || state->written.count(name) != 0;
    if (!replace && open_existing(state)) {
        return true;
    }
    return output_file_create(&state->out, state->directory, name) || fail(state, errno);
}

static bool is_same(FILE *there, const unsigned char *data, size_t length) {
    std::vector<unsigned char> bytes(length);
    return fread(bytes.data(), 1, length, there) == length &&
           memcmp(bytes.data(), data, length) == 0;
}

static bool take_data(struct pull_state *state, const unsigned char *data, size_t length) {
    if (state->there != nullptr && !is_same(state->there.get(), data, length)) {
        state->there.reset();
        state->files.back().outcome = pull_left_alone;
    }
    return state->out.stream == nullptr || output_file_write(&state->out, data, length) ||
           fail(state, errno);
}

// Gives the file that has been written its name.
static bool name_file(struct pull_state *state) {
    struct pulled_file *current = &state->files.back();
    const bool whole = file_is_whole(current->file);
    const std::string name = current->name + (whole ? "" : partial_suffix);
    if (current->file.present == 0 || is_image(*state, name)) {
        current->outcome = current->file.present == 0 ? pull_no_bytes : pull_is_image;
        output_file_discard(&state->out);
        return true;
    }
    const bool replace = state->options->force || state->written.count(name) != 0;
    if (!output_file_finish(&state->out, name, replace)) {
        const int error = errno;
        const bool more = fail(state, error);
        current->outcome = error == EEXIST ? pull_left_alone : pull_failed;
        return more;
    }
    state->written.insert(name);
    current->outcome = whole ? pull_saved : pull_partial;
    return true;
}

static bool end_file(struct pull_state *state, const struct dump_file &file) {
    state->files.back().file = file;
    state->there.reset();
    return state->out.stream == nullptr || name_file(state);
}

using owned_directory = std::unique_ptr<DIR, int (*)(DIR *)>;

static owned_directory open_directory(const std::string &path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        return {nullptr, closedir};
    }
    return {opendir(path.c_str()), closedir};
}

static int pull_dump(struct disk_image *image, struct bootside_walk *walk,
                     const struct pull_options &options) {
    const owned_directory directory = open_directory(options.directory);
    if (directory == nullptr) {
        fmt::print(stderr, "tarnix-chain: cannot use the directory {}: {}; choose another one\n",
                   options.directory, strerror(errno));
        return exit_unreadable;
    }
    struct pull_state state = {
        image, &options, dirfd(directory.get()), {}, {nullptr, fclose}, {}, {}, {}, {}};
    const struct dump_sink sink = {
        [&](const struct dump_file &file) { return begin_file(&state, file); },
        [&](const unsigned char *data, size_t length) { return take_data(&state, data, length); },
        [&](const struct dump_file &file) { return end_file(&state, file); }};
    progress_begin(image, "pulling", bytes_to_read(*image, *walk));
    const struct dump_reading reading = read_dump_stream(walk, sink);
    progress_end(image);
    // The names too. Not every file system can, and the bytes are safe by now.
    (void)fsync(state.directory);
    const struct pull_result result = {options.directory, std::move(state.files), *walk, reading};
    return report_pull(*image, result, options.json);
}

int pull_command(struct disk_image *image, const struct pull_options &options) {
    struct chain_finding finding = {};
    finding.result = start_reading(image, &finding.walk);
    const bool leave = finding.result == bootside_ok && options.pending_only &&
                       !is_dump_pending(finding.walk.flags);
    if (finding.result == bootside_ok && !leave) {
        return pull_dump(image, &finding.walk, options);
    }
    if (options.json) {
        print_json(chain_json(*image, finding));
        return exit_status_of(finding.result);
    }
    if (leave) {
        fmt::print("no dump is pending; nothing was written\n");
        return exit_good;
    }
    return report_failure(*image, finding);
}
