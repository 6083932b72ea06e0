// tarnix-chain's pull and status over images that nobody vouches for.
//
// Input: the anchor's 24 bytes, then the data partition from byte 512 on.  pull writes to "out" in
// the working directory.
#include <assert.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "chain/initial_block_header.h"
#include "tests/support/files.h"
#include "tools/commands.h"

static std::unique_ptr<disk_image> image;

// No progress bar, so that what is printed is plain text.
extern "C" int isatty(int) {
    return 0;
}

static bool is_plain(const std::string &text, const char *also) {
    return std::all_of(text.begin(), text.end(), [also](char c) {
        return (c >= ' ' && c <= '~') || (c != '\0' && strchr(also, c) != nullptr);
    });
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    image_options options;
    for (std::string *path : {&options.misc, &options.data}) {
        *path = "/proc/self/fd/" + std::to_string(memfd_create("partition", MFD_CLOEXEC));
    }
    std::string error;
    image = open_disk_image(options, true, &error);
    image->misc.size = 4096;
    return 0;
}

template <typename command_call>
static void run(command_call command) {
    FILE *standard[] = {stdout, stderr};
    char *text = nullptr;
    size_t length = 0;
    stdout = stderr = open_memstream(&text, &length);
    const int status = command();
    (void)fclose(stdout);
    stdout = standard[0];
    stderr = standard[1];
    assert(status == exit_good || status == exit_not_whole || status == exit_unreadable);
    assert(is_plain(std::string(text, length), "\n"));
    free(text);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const size_t data_start = 512;
    const size_t anchor = std::min(size, sizeof(initial_block_header));
    image->data.size = image->port.data_size = data_start + size - anchor;
    if (pwrite(image->misc.fd, data, anchor, initial_block_header_misc_offset) < 0 ||
        ftruncate(image->data.fd, static_cast<off_t>(image->data.size)) != 0 ||
        pwrite(image->data.fd, data + anchor, size - anchor, data_start) < 0) {
        return -1;
    }
    make_directories("out");
    run([] { return pull_command(image.get(), {"out", false, false}); });
    size_t written = 0;
    for (const std::string &name : list_directory("out")) {
        assert(is_plain(name, "") && name.find("..") == std::string::npos);
        written += read_file("out/" + name).size();
        unlink(("out/" + name).c_str());
    }
    assert(written <= size);
    run([size] { return status_command(image.get(), size % 2 == 0); });
    return 0;
}
