#include "tools/pull_report.h"

#include <fmt/format.h>

#include <algorithm>

#include "chain/format/initial_block_header.h"
#include "tools/chain_json.h"
#include "tools/commands.h"

// The words for a program, in the order of the outcomes.
static const char *const outcome_keys[] = {"saved",    "already_there", "partial",  "left_alone",
                                           "is_image", "failed",        "no_bytes", "superseded"};

// What there is to say, in its order, and the exit status that it comes to.
struct pull_messages {
    std::vector<std::string> texts;
    int status;
};

static void note(struct pull_messages *messages, int status, const std::string &text) {
    messages->texts.push_back(text);
    messages->status = std::max(messages->status, status);
}

static bool is_pending(const struct pull_result &result) {
    return is_dump_pending(result.walk.flags);
}

static std::string path_of(const struct pull_result &result, const struct pulled_file &pulled) {
    return result.directory + "/" + pulled.name;
}

static void tell_outcome(struct pull_messages *messages, const struct pulled_file &pulled,
                         const std::string &path) {
    switch (pulled.outcome) {
        case pull_left_alone:
            note(messages, exit_not_whole,
                 fmt::format("{}{} exists and was left alone; --force replaces it", path,
                             file_is_whole(pulled.file) ? "" : " or its .partial"));
            break;
        case pull_is_image:
            note(messages, exit_not_whole,
                 fmt::format("{} is the image that is read: it was left alone; choose another "
                             "directory",
                             path));
            break;
        case pull_failed:
            note(messages, exit_unreadable,
                 fmt::format("cannot write {}: {}; make room or choose another directory, and pull "
                             "again",
                             path, pulled.error));
            break;
        case pull_superseded:
            note(messages, exit_good,
                 fmt::format("{} occurs again in the dump, where it replaces the first, as on the "
                             "device",
                             path));
            break;
        default:
            break;
    }
}

static void tell_file(struct pull_messages *messages, const struct pulled_file &pulled,
                      const std::string &path) {
    const struct dump_file &file = pulled.file;
    if (pulled.name != file.name && pulled.outcome != pull_superseded) {
        note(messages, exit_good,
             fmt::format("a file's name is unsafe or taken, it is written as {}", pulled.name));
    }
    tell_outcome(messages, pulled, path);
    const char *kept = pulled.outcome == pull_partial ? "; kept as .partial" : "";
    if (pulled.outcome == pull_failed) {
        return;  // it was not read to its end: how far it goes is not known
    }
    if (file.present < file.size) {
        note(messages, exit_not_whole,
             fmt::format("{} is incomplete: {} of {} bytes, {} are missing{}", path, file.present,
                         file.size, file.size - file.present, kept));
    } else if (file.size == 0) {
        note(messages, exit_not_whole,
             fmt::format("{} is announced with no bytes, which ends the dump", path));
    } else if (file.doubted) {
        note(messages, exit_not_whole,
             fmt::format("{} is in doubt: it comes from behind a wrong link{}", path, kept));
    }
}

static struct chain_finding finding_at(const struct pull_result &result, enum bootside_result what,
                                       const struct bootside_fault &where) {
    struct chain_finding finding = {what, result.walk};
    finding.walk.fault = where;
    return finding;
}

// The first thing that was wrong with the blocks read. The chain behind the dump is not looked at.
static struct chain_finding first_finding(const struct pull_result &result) {
    const struct dump_reading &reading = result.reading;
    if (reading.doubted != bootside_ok) {
        return finding_at(result, reading.doubted, reading.doubted_at);
    }
    // A file of no bytes is a fault of the dump, not of the chain.
    return finding_at(result, reading.stopped == bootside_size_zero ? bootside_ok : reading.stopped,
                      reading.stopped_at);
}

static void tell_chain(struct pull_messages *messages, const struct disk_image &image,
                       const struct pull_result &result) {
    const struct dump_reading &reading = result.reading;
    const struct chain_finding first = first_finding(result);
    if (reading.doubted != bootside_ok) {
        note(messages, exit_not_whole,
             fmt::format("the chain is {}; what comes after that block may be wrong",
                         describe_verdict(image, first)));
    }
    if (reading.stopped != bootside_ok && reading.stopped != bootside_size_zero) {
        note(messages, exit_status_of(reading.stopped),
             fmt::format(
                 "the chain is {}; nothing can be had from behind it",
                 describe_verdict(image, finding_at(result, reading.stopped, reading.stopped_at))));
    }
    if (first.result != bootside_ok) {
        note(messages, exit_good, "next: " + next_step(image, first));
    }
}

static void tell_dump(struct pull_messages *messages, const struct pull_result &result) {
    const struct dump_reading &reading = result.reading;
    if (reading.too_many) {
        note(
            messages, exit_not_whole,
            fmt::format("stopped after {} files: this is no dump that a device makes", most_files));
    }
    if (reading.given_up) {
        note(messages, exit_unreadable, "stopped there: nothing more can be written");
    }
    if (reading.files == 0) {
        note(messages, is_pending(result) ? exit_not_whole : exit_good,
             "the chain holds no file of a dump");
    } else if (!is_pending(result)) {
        note(messages, exit_not_whole,
             "this is an old dump: its flag is not set, so that either the device has already "
             "extracted it, or a later write failed midway; no file of it is known to be whole");
    }
}

static ptrdiff_t count_of(const struct pull_result &result, enum pull_outcome outcome) {
    return std::count_if(result.files.begin(), result.files.end(),
                         [&](const auto &pulled) { return pulled.outcome == outcome; });
}

static std::string describe_wholeness(const struct pull_result &result) {
    if (!is_pending(result)) {
        return "none known to be whole";
    }
    const auto incomplete =
        std::count_if(result.files.begin(), result.files.end(), [](const auto &pulled) {
            return pulled.outcome != pull_failed && !file_is_whole(pulled.file);
        });
    return fmt::format("{} incomplete", incomplete);
}

static void print_text(const struct pull_result &result, const struct pull_messages &messages) {
    static const struct {
        enum pull_outcome outcome;
        const char *text;
    } others[] = {{pull_already_there, "already there"},
                  {pull_partial, "kept as .partial"},
                  {pull_left_alone, "left alone"},
                  {pull_is_image, "left alone as the image"},
                  {pull_failed, "not written"}};
    for (const std::string &text : messages.texts) {
        fmt::print(stderr, "tarnix-chain: {}\n", text);
    }
    fmt::print("{}{} in the dump, {}; {} written to {}",
               result.reading.given_up || result.reading.too_many ? "at least " : "",
               counted(result.reading.files, "file"), describe_wholeness(result),
               count_of(result, pull_saved), result.directory);
    for (const auto &other : others) {
        const ptrdiff_t count = count_of(result, other.outcome);
        if (count != 0) {
            fmt::print(", {} {}", count, other.text);
        }
    }
    fmt::print("\n");
}

static void print_as_json(const struct disk_image &image, const struct pull_result &result,
                          const struct pull_messages &messages) {
    nlohmann::json out = chain_json(image, first_finding(result));
    nlohmann::json files = nlohmann::json::array();
    for (const struct pulled_file &pulled : result.files) {
        nlohmann::json file = file_json(pulled.file);
        file["outcome"] = outcome_keys[pulled.outcome];
        if (pulled.outcome == pull_saved || pulled.outcome == pull_already_there) {
            file["path"] = path_of(result, pulled);
        } else if (pulled.outcome == pull_partial) {
            file["path"] = path_of(result, pulled) + partial_suffix;
        }
        files.push_back(std::move(file));
    }
    out["dump"] = {{"pending", is_pending(result)},
                   {"whole", is_pending(result) && dump_is_whole(result.reading)},
                   {"files", std::move(files)}};
    out["messages"] = messages.texts;
    print_json(out);
}

int report_pull(const struct disk_image &image, const struct pull_result &result, bool json) {
    struct pull_messages messages = {{}, exit_good};
    for (const struct pulled_file &pulled : result.files) {
        tell_file(&messages, pulled, path_of(result, pulled));
    }
    tell_chain(&messages, image, result);
    tell_dump(&messages, result);
    if (json) {
        print_as_json(image, result, messages);
    } else {
        print_text(result, messages);
    }
    return messages.status;
}
