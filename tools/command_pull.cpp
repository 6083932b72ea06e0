#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>

#include "bootside/chain_walk.h"
#include "chain/format/initial_block_header.h"
#include "tools/chain_report.h"
#include "tools/commands.h"
#include "tools/dump_reader.h"
#include "tools/progress_bar.h"
#include "tools/safe_name.h"

struct pull_state {
    struct disk_image *image;
    const struct pull_options *options;
    int directory;
    FILE *out;                                 // null while a file is skipped
    std::string path;                          // of `out`, for messages
    std::map<std::string, std::string> names;  // in the dump, and as written
    std::map<std::string, uint32_t> used;      // as written, and how often it was wanted
    std::set<std::string> written;             // made by this run, so that they may be replaced
    std::vector<std::string> notes;            // printed once the progress bar is gone
    int status;
};

static void note(struct pull_state *state, int status, const std::string &text) {
    state->notes.push_back(text);
    state->status = std::max(state->status, status);
}

// The name to write under: the dump's own, made safe, and unlike that of any other file of the
// dump.
static std::string choose_name(struct pull_state *state, const std::string &name) {
    const std::string safe = safe_name(name);
    std::string chosen = safe;
    while (state->used.count(chosen) != 0) {
        chosen = fmt::format("{}~{}", safe, ++state->used[safe]);
    }
    if (chosen != name) {
        note(state, exit_good,
             fmt::format("a file's name is unsafe or taken, it is written as {}", chosen));
    }
    state->used[chosen] = 1;
    state->names[name] = chosen;
    return chosen;
}

static void begin_file(struct pull_state *state, const struct dump_file &file) {
    const auto known = state->names.find(file.name);
    const std::string name =
        known != state->names.end() ? known->second : choose_name(state, file.name);
    const bool again = state->written.count(name) != 0;
    const bool replace = again || state->options->force;
    state->path = state->options->directory + "/" + name;
    if (again) {
        note(state, exit_good,
             fmt::format("{} occurs again in the dump and replaces the first, as on the device",
                         state->path));
    }
    if (replace) {
        // Whatever is in the way, a link or a device included, goes; failure shows in the next
        // call.
        unlinkat(state->directory, name.c_str(), 0);
    }
    const int fd = openat(state->directory, name.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    state->out = fd < 0 ? nullptr : fdopen(fd, "wb");
    if (state->out != nullptr) {
        setvbuf(state->out, nullptr, _IOFBF, 1048576);
        state->written.insert(name);
    } else if (errno == EEXIST && !replace) {
        note(state, exit_not_whole,
             fmt::format("{} exists and was left alone; --force replaces it", state->path));
    } else {
        note(state, exit_unreadable,
             fmt::format("cannot create {}: {}; choose another directory", state->path,
                         strerror(errno)));
    }
}

static void close_file(struct pull_state *state, bool written) {
    if (state->out != nullptr && (fclose(state->out) != 0 || !written)) {
        note(state, exit_unreadable,
             fmt::format("cannot write {}: {}; make room or choose another directory", state->path,
                         strerror(errno)));
    }
    state->out = nullptr;
}

static void take_data(struct pull_state *state, const unsigned char *data, size_t length) {
    if (state->out != nullptr && fwrite(data, 1, length, state->out) != length) {
        close_file(state, false);
    }
}

static void end_file(struct pull_state *state, const struct dump_file &file) {
    close_file(state, true);
    if (file.present < file.size) {
        note(state, exit_not_whole,
             fmt::format("{} is incomplete: {} of {} bytes, {} are missing", state->path,
                         file.present, file.size, file.size - file.present));
    } else if (file.size == 0) {
        note(state, exit_not_whole,
             fmt::format("{} is announced with no bytes, which ends the dump", state->path));
    }
}

static std::string describe(const struct pull_state &state, const struct bootside_walk &walk,
                            enum bootside_result result, const struct bootside_fault &fault) {
    struct bootside_walk at = walk;
    at.fault = fault;
    return describe_verdict(*state.image, result, at);
}

static void judge(struct pull_state *state, const struct bootside_walk &walk,
                  const struct dump_reading &reading, bool pending) {
    if (reading.doubted != bootside_ok) {
        note(state, exit_not_whole,
             fmt::format("the chain is {}; what comes after that block may be wrong",
                         describe(*state, walk, reading.doubted, reading.doubted_at)));
    }
    if (reading.stopped != bootside_ok && reading.stopped != bootside_size_zero) {
        note(state, reading.stopped == bootside_read_failed ? exit_unreadable : exit_not_whole,
             fmt::format("the chain is {}; nothing can be had from behind it",
                         describe(*state, walk, reading.stopped, reading.stopped_at)));
    }
    if (reading.too_many) {
        note(
            state, exit_not_whole,
            fmt::format("stopped after {} files: this is no dump that a device makes", most_files));
    }
    if (reading.files == 0) {
        note(state, pending ? exit_not_whole : exit_good, "the chain holds no file of a dump");
    } else if (!pending) {
        note(state, exit_good,
             "this is an old dump: its flag is not set, so the device has already extracted it, "
             "or it was never finished");
    }
}

static int open_directory(const std::string &path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        return -1;
    }
    return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

int pull_command(struct disk_image *image, const struct pull_options &options) {
    struct bootside_walk walk = {};
    const enum bootside_result result = chain_walk_start(&walk, &image->port);
    if (result != bootside_ok) {
        return report_failure(*image, result, walk);
    }
    const bool pending = is_dump_pending(walk.flags);
    if (!pending && options.pending_only) {
        fmt::print("no dump is pending; nothing was written\n");
        return exit_good;
    }
    struct pull_state state = {};
    state.image = image;
    state.options = &options;
    state.directory = open_directory(options.directory);
    if (state.directory < 0) {
        fmt::print(stderr, "tarnix-chain: cannot use the directory {}: {}; choose another one\n",
                   options.directory, strerror(errno));
        return exit_unreadable;
    }
    const struct dump_sink sink = {
        [&](const struct dump_file &file) { begin_file(&state, file); },
        [&](const unsigned char *data, size_t length) { take_data(&state, data, length); },
        [&](const struct dump_file &file) { end_file(&state, file); }};
    progress_begin(image, "pulling", uint64_t{walk.n_blocks} * walk.block_length);
    const struct dump_reading reading = read_dump_stream(&walk, sink);
    progress_end(image);
    close(state.directory);
    judge(&state, walk, reading, pending);
    for (const std::string &text : state.notes) {
        fmt::print(stderr, "tarnix-chain: {}\n", text);
    }
    fmt::print("{} in the dump, {} incomplete; {} written to {}\n", counted(reading.files, "file"),
               reading.cut_short, state.written.size(), options.directory);
    return state.status;
}
