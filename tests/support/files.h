// Whole files, for tests. What cannot be done ends the test binary with the path's name.
#ifndef TARNIX_TESTS_SUPPORT_FILES_H
#define TARNIX_TESTS_SUPPORT_FILES_H

#include <stdint.h>

#include <set>
#include <string>

// Ends the test binary, with errno's text for `path`, unless it was done.
void must(bool done, const std::string &path);

// Makes the directory and those above it, where missing.
void make_directories(const std::string &path);

// Creates or replaces the file, making the directories above it.
void write_file(const std::string &path, const std::string &content);

// Writes into the file at a byte offset, creating it or making it longer (with a hole) as needed.
void write_file_at(const std::string &path, uint64_t offset, const std::string &content);

// The content; "(cannot be read)" when it cannot be read.
std::string read_file(const std::string &path);

// Names in the directory, without "." and "..".
std::set<std::string> list_directory(const std::string &path);

// A record's bytes as they lie on disk.
template <typename Record>
std::string bytes_of(const Record &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof(record));
}

#endif
