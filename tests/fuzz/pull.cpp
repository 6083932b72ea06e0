// What tarnix-chain's commands read, print and write of images that nobody vouches for.
//
// Input: the anchor's 24 bytes, then the data partition from byte 512 on. The partitions are files
// in the working directory, where pull writes to "out".
#include <assert.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "chain/format/initial_block_header.h"
#include "tests/support/files.h"
#include "tools/commands.h"
#include "tools/pull_report.h"

// No progress bar, so that what is printed is plain text.
extern "C" int isatty(int) {
    return 0;
}

static bool is_plain(const std::string &text, const char *also) {
    return std::all_of(text.begin(), text.end(), [also](char c) {
        return (c >= ' ' && c <= '~') || (c != '\0' && strchr(also, c) != nullptr);
    });
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
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t anchor = std::min(size, sizeof(struct initial_block_header));
    const std::string nothing(initial_block_header_misc_offset, '\0');
    write_file("./misc", nothing + input.substr(0, anchor));
    write_file("./data", nothing.substr(0, data_start) + input.substr(anchor));
    write_file("./in", "written");
    make_directories("out");
    static std::string error;
    static const auto image = open_disk_image({"", "misc", "data", ""}, true, &error);  // is slow
    image->misc.size = nothing.size() + anchor;
    image->data.size = image->port.data_size = data_start + size - anchor;
    image->data.whole_size = size % 3 == 0 ? 65536 : 0;  // what is there is a copy cut short
    const bool json = size % 2 == 0;
    run([json] { return pull_command(image.get(), {"out", false, false, json}); });
    run([json] { return pull_command(image.get(), {"out", json, false, !json}); });
    run([json] { return status_command(image.get(), json); });
    run([json] { return verify_command(image.get(), json); });
    run([json] { return map_command(image.get(), json); });
    size_t written = 0;
    for (const std::string &name : list_directory("out")) {
        // Before ".partial", which may follow a dot, no name of the dump keeps "..".
        const std::string own = name.substr(0, name.rfind(partial_suffix));
        assert(is_plain(name, "") && own.find("..") == std::string::npos);
        written += read_file("out/" + name).size();
        unlink(("out/" + name).c_str());
    }
    assert(written <= size);
    run([] { return write_command(image.get(), {"in=in"}, true); });
    return 0;
}
