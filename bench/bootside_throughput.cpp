// How fast the boot side writes a dump, beside plain sequential writing of the same bytes to the
// same file.
//
//   bootside_throughput FOLDER [MIB] [ROUNDS]
//
// Makes a data partition of MIB (512) with one contiguous chain in FOLDER, and takes turns ROUNDS
// (5) times: the plain way in 1 MiB pieces, the opening walk, and the boot side with a 1 MiB
// buffer. Prints the medians, and the ratio that matters: boot side to plain.
#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "bootside/chain_walk.h"
#include "chain/format/block_header.h"
#include "chain/format/initial_block_header.h"
#include "tools/disk_image.h"

static const uint32_t block_length = 4096;
static const uint32_t seed = 0x12345678;
static const size_t piece = 1048576;

static double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

static double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

[[noreturn]] static void fail(const std::string &what) {
    fmt::print(stderr, "bootside_throughput: {}\n", what);
    exit(1);
}

static void require(bool done, const struct disk_image &image) {
    if (!done) {
        fail(image.error);
    }
}

// Blocks 1 to n as one chain, with the anchor; the plain writing wipes the headers each round.
static void build_chain(struct disk_image *image, uint32_t n) {
    const struct bootside_port &port = image->port;
    const struct initial_block_header anchor = fresh_initial_block_header(1, block_length, n, seed);
    bool done =
        port.write_misc(image, initial_block_header_misc_offset, &anchor, sizeof(anchor)) == 0;
    uint32_t crc = seed;
    for (uint32_t block = 1; block <= n && done; ++block) {
        const uint32_t next = block == n ? 0 : block + 1;
        crc = chain_walk_crc(&port, crc, block, next);
        const struct block_header header = {block_header_magic, next, crc};
        done = port.write_data(image, uint64_t{block} * block_length, &header, sizeof(header)) == 0;
    }
    require(done && port.flush(image) == 0, *image);
}

static double write_plain(struct disk_image *image, uint64_t bytes, const std::vector<char> &data) {
    const auto start = std::chrono::steady_clock::now();
    for (uint64_t at = 0; at < bytes; at += piece) {
        const size_t length = static_cast<size_t>(std::min<uint64_t>(piece, bytes - at));
        require(image->port.write_data(image, block_length + at, data.data(), length) == 0, *image);
    }
    require(image->port.flush(image) == 0, *image);
    return seconds_since(start);
}

static double write_dump(struct disk_image *image, struct bootside *boot, uint64_t bytes,
                         const std::vector<char> &data) {
    const auto start = std::chrono::steady_clock::now();
    enum bootside_result result = bootside_begin_dump(boot, 1);
    if (result == bootside_ok) {
        result = bootside_begin_file(boot, "DDRCS0.BIN", bytes);
    }
    for (uint64_t at = 0; at < bytes && result == bootside_ok; at += piece) {
        const size_t length = static_cast<size_t>(std::min<uint64_t>(piece, bytes - at));
        result = bootside_write(boot, data.data(), length);
    }
    if (result == bootside_ok) {
        result = bootside_finish(boot);
    }
    require(result == bootside_ok, *image);
    return seconds_since(start);
}

static void make_file(const std::string &path, uint64_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || posix_fallocate(fd, 0, static_cast<off_t>(size)) != 0) {
        fail("cannot make " + path);
    }
    close(fd);
}

static void measure(struct disk_image *image, int rounds) {
    const auto n = static_cast<uint32_t>(image->data.size / block_length - 1);
    const std::vector<char> data(piece, 'x');
    const uint64_t bytes = uint64_t{n} * (block_length - sizeof(struct block_header)) - 40;
    std::vector<double> plain;
    std::vector<double> walk;
    std::vector<double> dump;
    for (int round = 0; round < rounds; ++round) {
        plain.push_back(write_plain(image, bytes, data));
        build_chain(image, n);
        struct bootside boot;
        const auto start = std::chrono::steady_clock::now();
        require(bootside_open(&boot, &image->port) == bootside_ok, *image);
        walk.push_back(seconds_since(start));
        dump.push_back(write_dump(image, &boot, bytes, data));
    }
    const double mib = static_cast<double>(bytes) / 1048576;
    fmt::print("plain writing   {:8.1f} MiB/s\n", mib / median(plain));
    fmt::print("boot side       {:8.1f} MiB/s   {:.2f} of plain\n", mib / median(dump),
               median(plain) / median(dump));
    fmt::print("opening walk    {:8.3f} s for {} blocks, not in the above\n", median(walk), n);
}

int main(int argc, char **argv) {
    if (argc < 2) {
        fail("usage: bootside_throughput FOLDER [MIB] [ROUNDS]");
    }
    const std::string folder = argv[1];
    const uint64_t mib = argc > 2 ? strtoull(argv[2], nullptr, 10) : 512;
    const int rounds = argc > 3 ? atoi(argv[3]) : 5;
    if (mib < 1 || rounds < 1) {
        fail("MIB and ROUNDS are at least 1");
    }
    const struct image_options options = {"", folder + "/bench-misc.img",
                                          folder + "/bench-data.img", ""};
    make_file(options.misc, 1048576);
    make_file(options.data, mib * 1048576);
    std::string error;
    const auto image = open_disk_image(options, true, &error);
    if (image == nullptr) {
        fail(error);
    }
    measure(image.get(), rounds);
    unlink(options.misc.c_str());
    unlink(options.data.c_str());
    return 0;
}
