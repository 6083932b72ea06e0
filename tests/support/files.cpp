#include "tests/support/files.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

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
