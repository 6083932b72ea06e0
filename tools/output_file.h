// A file that gets its name once it is whole.
//
// Until then it has a name of its own in the same directory, and is removed when SIGINT, SIGTERM or
// SIGHUP ends the program.
#ifndef TARNIX_TOOLS_OUTPUT_FILE_H
#define TARNIX_TOOLS_OUTPUT_FILE_H

#include <stdio.h>

#include <string>

// One at a time. Closed and without a file while `stream` is null.
struct output_file {
    int directory;          // the caller's, who keeps it open
    std::string temporary;  // the name until the end
    FILE *stream;
};

// Creates the file in `directory`. `name` makes its temporary name. False with errno.
bool output_file_create(struct output_file *file, int directory, const std::string &name);

// Appends. False with errno: the file is gone then.
bool output_file_write(struct output_file *file, const unsigned char *data, size_t length);

// Brings all bytes onto the medium and gives the file its name, in the place of what has that name
// if `replace` is set. False with errno, EEXIST where that is in the way: the file is gone then.
bool output_file_finish(struct output_file *file, const std::string &name, bool replace);

void output_file_discard(struct output_file *file);

#endif
