#include "tests/support/files.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include "chain/format/block_header.h"
#include "chain/format/initial_block_header.h"

void must(bool done, const std::string &path) {
    if (!done) {
        perror(path.c_str());
        abort();
    }
}

void make_directories(const std::string &path) {
    size_t slash = 0;
    while (slash != std::string::npos) {
        slash = path.find('/', slash + 1);
        (void)mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

void write_file(const std::string &path, const std::string &content) {
    make_directories(path.substr(0, path.rfind('/')));
    must(android::base::WriteStringToFile(content, path), path);
}

void write_file_at(const std::string &path, uint64_t offset, const std::string &content) {
    make_directories(path.substr(0, path.rfind('/')));
    const android::base::unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    must(pwrite(file, content.data(), content.size(), static_cast<off_t>(offset)) ==
             static_cast<ssize_t>(content.size()),
         path);
}

std::string read_file(const std::string &path) {
    std::string content;
    return android::base::ReadFileToString(path, &content) ? content : "(cannot be read)";
}

std::set<std::string> list_directory(const std::string &path) {
    DIR *directory = opendir(path.c_str());
    must(directory != nullptr, path);
    std::set<std::string> names;
    for (struct dirent *entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        names.insert(entry->d_name);
    }
    closedir(directory);
    names.erase(".");
    names.erase("..");
    return names;
}

void make_map_file(uint64_t size) {
    write_file(MAP_PATH, "");
    must(truncate(MAP_PATH, static_cast<off_t>(size)) == 0, MAP_PATH);
}

std::vector<std::string> chain_headers(uint32_t seed, const std::vector<uint32_t> &blocks) {
    std::vector<std::string> headers;
    uint32_t crc = seed;
    for (size_t i = 0; i < blocks.size(); ++i) {
        const uint32_t next = i + 1 < blocks.size() ? blocks[i + 1] : 0;
        const uint64_t link[2] = {blocks[i], next};
        crc = static_cast<uint32_t>(crc32(crc, reinterpret_cast<const Bytef *>(link), 16));
        headers.push_back(bytes_of(block_header{block_header_magic, next, crc}));
    }
    return headers;
}

std::string anchor_bytes(uint32_t first_block, uint32_t n_blocks, uint32_t seed, uint32_t flags) {
    return bytes_of(initial_block_header{initial_block_header_magic, first_block, block_length,
                                         n_blocks, seed, flags});
}
