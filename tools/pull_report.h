// What pull has done with a dump, told to a person or a program.
#ifndef TARNIX_TOOLS_PULL_REPORT_H
#define TARNIX_TOOLS_PULL_REPORT_H

#include <string>
#include <vector>

#include "tools/disk_image.h"
#include "tools/dump_reader.h"

// What a file that is not whole has behind its name.
constexpr char partial_suffix[] = ".partial";

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

struct pulled_file {
    struct dump_file file;
    std::string name;  // in the directory, without partial_suffix
    enum pull_outcome outcome;
    std::string error;  // why it could not be written
};

struct pull_result {
    std::string directory;
    std::vector<struct pulled_file> files;  // in the dump's order
    struct bootside_walk walk;              // where the reading ended
    struct dump_reading reading;
};

// Prints it, and returns the exit status.
int report_pull(const struct disk_image &image, const struct pull_result &result, bool json);

#endif
