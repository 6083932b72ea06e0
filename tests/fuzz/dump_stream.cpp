// The device's parser of the dump stream, fed in blocks, and beside it the one of tarnix-chain:
// pull promises what the device would have extracted, so both must find the same files.
//
// Input: the stream.  It is cut into payloads of 500 bytes, the last one filled up with zeros.
#include "extract/dump_stream.cpp"  // NOLINT(bugprone-suspicious-include): to start each input afresh

#include <assert.h>

#include <string>
#include <vector>

#include "bootside/chain_walk.h"
#include "chain/block_header.h"
#include "chain/initial_block_header.h"
#include "tests/support/captured_log.h"
#include "tools/dump_stream.h"

struct found_file {
    std::string name;
    std::string data;
};
struct chain_image {
    initial_block_header anchor;
    std::string data;
};

static const size_t payload_length = 512 - sizeof(block_header);
static std::vector<found_file> device_files, desk_files;
static bool refused;  // the device could not open a file
char ramdump_path[dump_path_size] = "/data/vendor/ramdump/apq/00/";

// The dump directory, without a file system: it has no directories in it.
extern "C" FILE *__wrap_fopen64(const char *path, const char *) {
    const size_t directory_length = strlen(ramdump_path);
    assert(strlen(path) < 64 && strncmp(path, ramdump_path, directory_length) == 0);
    const std::string name = path + directory_length;
    refused = name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos;
    if (refused) {
        return nullptr;
    }
    device_files.push_back({name, ""});
    cookie_io_functions_t functions = {};
    functions.write = [](void *, const char *data, size_t length) {
        device_files.back().data.append(data, length);
        return static_cast<ssize_t>(length);
    };
    FILE *stream = fopencookie(nullptr, "wb", functions);
    setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

static void extract_on_device(const std::string &stream) {
    int64_t result = 0;
    for (size_t at = 0; at < stream.size() && result == 0; at += payload_length) {
        // Of its own size on the heap, so that one byte too many is noticed.
        std::vector<uint8_t> block(&stream[at], &stream[at] + payload_length);
        result = process_data(block.data(), payload_length);
    }
    if (output != nullptr) {
        (void)fclose(output);
    }
    output = nullptr;
    in_file = false;
}

static void extract_at_desk(const std::string &stream) {
    const auto n = static_cast<uint32_t>(stream.size() / payload_length);
    chain_image image = {{initial_block_header_magic, 1, 512, n, 0, 3}, std::string(512, '\0')};
    for (uint32_t i = 0; i < n; ++i) {
        const block_header link = {block_header_magic, i + 1 < n ? i + 2 : 0, 0};
        image.data.append(reinterpret_cast<const char *>(&link), sizeof(link));
        image.data.append(stream, i * payload_length, payload_length);
    }
    char buffer[512];
    bootside_port port = {};
    port.user = &image;
    port.read_misc = [](void *user, uint64_t, void *to, size_t length) {
        memcpy(to, &static_cast<chain_image *>(user)->anchor, length);
        return 0;
    };
    port.read_data = [](void *user, uint64_t offset, void *to, size_t length) {
        memcpy(to, &static_cast<chain_image *>(user)->data[offset], length);
        return 0;
    };
    port.crc32 = [](void *, uint32_t, const void *, size_t) { return UINT32_C(0); };
    port.data_size = image.data.size();
    port.buffer = buffer;
    port.buffer_size = sizeof(buffer);
    dump_sink sink;
    sink.begin = [](const dump_file &file) { desk_files.push_back({file.name, ""}); };
    sink.data = [](const unsigned char *data, size_t length) {
        desk_files.back().data.append(reinterpret_cast<const char *>(data), length);
    };
    bootside_walk walk;
    chain_walk_start(&walk, &port);
    read_dump_stream(&walk, sink);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string stream(reinterpret_cast<const char *>(data), size);
    stream.resize((size / payload_length + 1) * payload_length);
    device_files.clear();
    desk_files.clear();
    refused = false;
    extract_on_device(stream);
    extract_at_desk(stream);
    assert(refused ? device_files.size() < desk_files.size()
                   : device_files.size() == desk_files.size());
    for (size_t i = 0; i < device_files.size(); ++i) {
        assert(device_files[i].name == desk_files[i].name);
        assert(device_files[i].data == desk_files[i].data);
    }
    take_log();
    return 0;
}
