// System properties on a Linux machine: a directory with one file a property, its name the key and
// its content the value, less a final newline. The directory is $TARNIX_PROPERTIES, else
// /dev/__properties__.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <string>

static std::string property_directory() {
    const char *directory = getenv("TARNIX_PROPERTIES");
    return directory != nullptr && *directory != '\0' ? directory : "/dev/__properties__";
}

// A key is a file name here: it must not lead out of the directory, nor name a file that a writer
// is still filling (those begin with a dot).
static bool is_property_name(const char *name) {
    return *name != '\0' && *name != '.' && strchr(name, '/') == nullptr;
}

static bool read_value(const std::string &name, std::string *value) {
    if (!is_property_name(name.c_str()) ||
        !android::base::ReadFileToString(property_directory() + "/" + name, value)) {
        return false;
    }
    // Of a file written with echo.
    if (!value->empty() && value->back() == '\n') {
        value->pop_back();
    }
    return value->size() < PROP_VALUE_MAX;
}

int __system_property_get(const char *name, char *value) {
    std::string content;
    if (!read_value(name, &content)) {
        content.clear();
    }
    // A NUL ends a value, as it would on the device.
    const size_t length = strnlen(content.c_str(), content.size());
    memcpy(value, content.c_str(), length);
    value[length] = '\0';
    return static_cast<int>(length);
}

// Writes all of `value` to a new file, on flash before it takes the property's name: a reader, and
// a run after a power cut, see the old value or the new one.
static bool store_value(const char *name, const char *value) {
    const std::string directory = property_directory();
    std::string temporary = directory + "/.XXXXXX";
    const int fd = mkostemp(&temporary[0], O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    bool stored = android::base::WriteFully(fd, value, strlen(value)) && fsync(fd) == 0;
    stored = close(fd) == 0 && stored;
    stored = stored && rename(temporary.c_str(), (directory + "/" + name).c_str()) == 0;
    if (!stored) {
        unlink(temporary.c_str());
    }
    return stored;
}

int __system_property_set(const char *name, const char *value) {
    if (!is_property_name(name) || strlen(value) >= PROP_VALUE_MAX || !store_value(name, value)) {
        return -1;
    }
    android::base::SetProperty(name, value);
    return 0;
}

// libbase keeps a property table of its own on Linux; filled from the store before main, so that
// GetProperty sees what __system_property_get sees.
__attribute__((constructor)) static void mirror_properties() {
    DIR *directory = opendir(property_directory().c_str());
    if (directory == nullptr) {
        return;
    }
    for (struct dirent *entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        std::string value;
        if (read_value(entry->d_name, &value)) {
            android::base::SetProperty(entry->d_name, value);
        }
    }
    closedir(directory);
}
