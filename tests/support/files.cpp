#include "tests/support/files.h"

#include <android-base/file.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

static void must(bool done, const std::string &path) {
    if (!done) {
        perror(path.c_str());
        abort();
    }
}

void make_directories(const std::string &path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        (void)mkdir(path.substr(0, slash).c_str(), 0755);
    }
    (void)mkdir(path.c_str(), 0755);
}

void write_file(const std::string &path, const std::string &content) {
    write_file_at(path, 0, "");
    must(android::base::WriteStringToFile(content, path), path);
}

void write_file_at(const std::string &path, uint64_t offset, const std::string &content) {
    make_directories(path.substr(0, path.rfind('/')));
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    must(fd != -1, path);
    must(pwrite(fd, content.data(), content.size(), static_cast<off_t>(offset)) ==
             static_cast<ssize_t>(content.size()),
         path);
    close(fd);
}

std::string read_file(const std::string &path) {
    std::string content;
    return android::base::ReadFileToString(path, &content) ? content : "(cannot be read)";
}

std::string read_file_at(const std::string &path, uint64_t offset, size_t length) {
    std::string content(length, '\0');
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    must(fd != -1, path);
    ssize_t count = pread(fd, &content[0], length, static_cast<off_t>(offset));
    must(count != -1, path);
    close(fd);
    content.resize(static_cast<size_t>(count));
    return content;
}

std::vector<std::string> list_directory(const std::string &path) {
    std::vector<std::string> names;
    DIR *directory = opendir(path.c_str());
    must(directory != nullptr, path);
    for (dirent *entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(directory);
    std::sort(names.begin(), names.end());
    return names;
}
