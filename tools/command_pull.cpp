#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "chain/format/initial_block_header.h"
#include "tools/chain_access.h"
#include "tools/chain_json.h"
#include "tools/commands.h"
#include "tools/dump_reader.h"
#include "tools/output_file.h"
#include "tools/progress_bar.h"
#include "tools/safe_name.h"

// What a file that is not whole is called behind its name.
static const char partial_suffix[] = ".partial";

enum pull_outcome {
    pull_saved,          // under its name, with all of its bytes
    pull_already_there,  // left by an earlier run, with the same bytes
    pull_partial,        // under its name with partial_suffix
    pull_left_alone,     // something else has that name
    pull_is_image,       // the image that is read has that name
    pull_failed,         // could not be written
    pull_no_bytes,       // nothing of it is in the chain
    pull_superseded      // another file of its name came later
};

// The words for a program, in the order of the outcomes.
static const char *const outcome_keys[] = {"saved",    "already_there", "partial",  "left_alone",
                                           "is_image", "failed",        "no_bytes", "superseded"};

struct pulled_file {
    struct dump_file file;
    std::string name;  // in the directory, without partial_suffix
    enum pull_outcome outcome;
    std::string error;  // why it could not be written
};

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
    std::vector<std::string> notes;                // for the user, in their order
    int status;
};

static void note(struct pull_state *state, int status, const std::string &text) {
    state->notes.push_back(text);
    state->status = std::max(state->status, status);
}

// The name to write under: the dump's own, made safe, and unlike that of any other file of the
// dump, whole or partial.
static std::string choose_name(struct pull_state *state, const std::string &name) {
    const std::string safe = safe_name(name);
    std::string chosen = safe;
    while (state->used.count(chosen) != 0 || state->used.count(chosen + partial_suffix) != 0) {
        chosen = fmt::format("{}~{}", safe, ++state->used[safe]);
    }
    if (chosen != name) {
        note(state, exit_good,
             fmt::format("a file's name is unsafe or taken, it is written as {}", chosen));
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
    if (fd < 0 && errno == ENOENT) {
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

static std::string path_of(const struct pull_state &state, const struct pulled_file &pulled) {
    return state.options->directory + "/" + pulled.name +
           (pulled.outcome == pull_partial ? partial_suffix : "");
}

static void report_outcome(struct pull_state *state, const struct pulled_file &pulled) {
    const std::string path = path_of(*state, pulled);
    switch (pulled.outcome) {
        case pull_left_alone:
            note(state, exit_not_whole,
                 fmt::format("{}{} exists and was left alone; --force replaces it", path,
                             file_is_whole(pulled.file) ? "" : " or its .partial"));
            break;
        case pull_is_image:
            note(state, exit_not_whole,
                 fmt::format("{} is the image that is read: it was left alone; choose another "
                             "directory",
                             path));
            break;
        case pull_failed:
            note(state, exit_unreadable,
                 fmt::format("cannot write {}: {}; make room or choose another directory, and pull "
                             "again",
                             path, pulled.error));
            break;
        case pull_superseded:
            note(state, exit_good,
                 fmt::format("{} occurs again in the dump, where it replaces the first, as on the "
                             "device",
                             path));
            break;
        default:
            break;
    }
}

static void report_file(struct pull_state *state, const struct pulled_file &pulled) {
    const struct dump_file &file = pulled.file;
    const std::string path = state->options->directory + "/" + pulled.name;
    const char *kept = pulled.outcome == pull_partial ? "; kept as .partial" : "";
    report_outcome(state, pulled);
    if (pulled.outcome == pull_failed) {
        return;  // how much was read tells nothing
    }
    if (file.present < file.size) {
        note(state, exit_not_whole,
             fmt::format("{} is incomplete: {} of {} bytes, {} are missing{}", path, file.present,
                         file.size, file.size - file.present, kept));
    } else if (file.size == 0) {
        note(state, exit_not_whole,
             fmt::format("{} is announced with no bytes, which ends the dump", path));
    } else if (file.doubted) {
        note(state, exit_not_whole,
             fmt::format("{} is in doubt: it comes from behind a wrong link{}", path, kept));
    }
}

// The first thing that was wrong with the blocks read. The chain behind the dump is not looked at.
static struct chain_finding finding_of(const struct bootside_walk &walk,
                                       const struct dump_reading &reading) {
    const bool doubted = reading.doubted != bootside_ok;
    struct chain_finding finding = {doubted ? reading.doubted : reading.stopped, walk};
    finding.walk.fault = doubted ? reading.doubted_at : reading.stopped_at;
    if (finding.result == bootside_size_zero) {
        finding.result = bootside_ok;  // a fault of the dump, not of the chain
    }
    return finding;
}

static void judge(struct pull_state *state, const struct bootside_walk &walk,
                  const struct dump_reading &reading) {
    const struct chain_finding first = finding_of(walk, reading);
    if (reading.doubted != bootside_ok) {
        note(state, exit_not_whole,
             fmt::format("the chain is {}; what comes after that block may be wrong",
                         describe_verdict(*state->image, first)));
    }
    if (reading.stopped != bootside_ok && reading.stopped != bootside_size_zero) {
        struct chain_finding stop = {reading.stopped, walk};
        stop.walk.fault = reading.stopped_at;
        note(state, reading.stopped == bootside_read_failed ? exit_unreadable : exit_not_whole,
             fmt::format("the chain is {}; nothing can be had from behind it",
                         describe_verdict(*state->image, stop)));
    }
    if (first.result != bootside_ok) {
        note(state, exit_good, "next: " + next_step(*state->image, first));
    }
    if (reading.too_many) {
        note(
            state, exit_not_whole,
            fmt::format("stopped after {} files: this is no dump that a device makes", most_files));
    }
    if (reading.given_up) {
        note(state, exit_unreadable, "stopped there: nothing more can be written");
    }
    const bool pending = is_dump_pending(walk.flags);
    if (reading.files == 0) {
        note(state, pending ? exit_not_whole : exit_good, "the chain holds no file of a dump");
    } else if (!pending) {
        note(state, exit_not_whole,
             "this is an old dump: its flag is not set, so that either the device has already "
             "extracted it, or a later write failed midway; no file of it is known to be whole");
    }
}

static ptrdiff_t count_incomplete(const struct pull_state &state) {
    return std::count_if(state.files.begin(), state.files.end(), [](const auto &pulled) {
        return pulled.outcome != pull_failed && !file_is_whole(pulled.file);
    });
}

static ptrdiff_t count_of(const struct pull_state &state, enum pull_outcome outcome) {
    return std::count_if(state.files.begin(), state.files.end(),
                         [&](const auto &pulled) { return pulled.outcome == outcome; });
}

static void print_text(const struct pull_state &state, const struct bootside_walk &walk,
                       const struct dump_reading &reading) {
    for (const std::string &text : state.notes) {
        fmt::print(stderr, "tarnix-chain: {}\n", text);
    }
    fmt::print("{}{} in the dump, {}; {} written to {}",
               reading.given_up || reading.too_many ? "at least " : "",
               counted(reading.files, "file"),
               is_dump_pending(walk.flags) ? fmt::format("{} incomplete", count_incomplete(state))
                                           : "none known to be whole",
               count_of(state, pull_saved), state.options->directory);
    const struct {
        enum pull_outcome outcome;
        const char *text;
    } others[] = {{pull_already_there, "already there"},
                  {pull_partial, "kept as .partial"},
                  {pull_left_alone, "left alone"},
                  {pull_is_image, "left alone"},
                  {pull_failed, "not written"}};
    for (const auto &other : others) {
        const ptrdiff_t count = count_of(state, other.outcome);
        if (count != 0) {
            fmt::print(", {} {}", count, other.text);
        }
    }
    fmt::print("\n");
}

static void print_as_json(const struct pull_state &state, const struct bootside_walk &walk,
                          const struct dump_reading &reading) {
    nlohmann::json out = chain_json(*state.image, finding_of(walk, reading));
    const bool pending = is_dump_pending(walk.flags);
    nlohmann::json files = nlohmann::json::array();
    for (const struct pulled_file &pulled : state.files) {
        nlohmann::json file = file_json(pulled.file);
        file["outcome"] = outcome_keys[pulled.outcome];
        if (pulled.outcome == pull_saved || pulled.outcome == pull_partial ||
            pulled.outcome == pull_already_there) {
            file["path"] = path_of(state, pulled);
        }
        files.push_back(std::move(file));
    }
    out["dump"] = {{"pending", pending},
                   {"whole", pending && dump_is_whole(reading)},
                   {"files", std::move(files)}};
    out["messages"] = state.notes;
    print_json(out);
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
        image, &options, dirfd(directory.get()), {}, {nullptr, fclose}, {}, {}, {}, {},
        {},    exit_good};
    const struct dump_sink sink = {
        [&](const struct dump_file &file) { return begin_file(&state, file); },
        [&](const unsigned char *data, size_t length) { return take_data(&state, data, length); },
        [&](const struct dump_file &file) { return end_file(&state, file); }};
    progress_begin(image, "pulling", bytes_to_read(*image, *walk));
    const struct dump_reading reading = read_dump_stream(walk, sink);
    progress_end(image);
    // The names too. Not every file system can, and the bytes are safe by now.
    (void)fsync(state.directory);
    for (const struct pulled_file &pulled : state.files) {
        report_file(&state, pulled);
    }
    judge(&state, *walk, reading);
    if (options.json) {
        print_as_json(state, *walk, reading);
    } else {
        print_text(state, *walk, reading);
    }
    return state.status;
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
