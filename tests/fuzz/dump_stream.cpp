// The device's parser of the dump stream, fed in blocks, and beside it the one of tarnix-chain:
// pull promises what the device would have extracted, so both must find the same files.
//
// Input: the stream. It is cut into payloads of 500 bytes, the last one filled up with zeros.
#include "extract/dump_stream.cpp"  // NOLINT(bugprone-suspicious-include): to start each input afresh

#include "tests/bootside/memory_device.h"
#include "tests/support/captured_log.h"

static const size_t payload_length = 512 - sizeof(struct block_header);
static named_files device_files;
char ramdump_path[dump_path_size] = "/data/vendor/ramdump/apq/00/";

// The dump directory, without a file system: any name will do.
extern "C" FILE *__wrap_fopen64(const char *path, const char *) {
    const size_t directory_length = strlen(ramdump_path);
    assert(strlen(path) < 64 && strncmp(path, ramdump_path, directory_length) == 0);
    device_files.emplace_back(path + directory_length, "");
    cookie_io_functions_t functions = {};
    functions.write = [](void *, const char *data, size_t length) {
        device_files.back().second.append(data, length);
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

static named_files extract_at_desk(const std::string &stream) {
    make_chain(1, static_cast<uint32_t>(stream.size() / payload_length), 1);
    for (auto &block : device.blocks) {
        block.second += stream.substr((block.first - 1) * payload_length, payload_length);
    }
    return read_dump();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string stream(reinterpret_cast<const char *>(data), size);
    stream.resize((size / payload_length + 1) * payload_length);
    device_files.clear();
    extract_on_device(stream);
    assert(device_files == extract_at_desk(stream));
    take_log();
    return 0;
}
