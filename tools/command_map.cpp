#include <fmt/format.h>

#include <algorithm>

#include "bootside/chain_walk.h"
#include "tools/chain_report.h"
#include "tools/commands.h"
#include "tools/progress_bar.h"

struct physical_run {
    uint32_t position;  // of its first block in the chain
    uint32_t block;
    uint32_t blocks;
};

static const uint32_t picture_columns = 64;
static const uint32_t picture_rows = 16;

static enum bootside_result find_runs(struct bootside_walk *walk,
                                      std::vector<struct physical_run> *runs) {
    enum bootside_result result = bootside_ok;
    while (result == bootside_ok && walk->position < walk->n_blocks) {
        const struct physical_run here = {walk->position, walk->block, 1};
        result = chain_walk_step(walk);
        if (result != bootside_ok) {
            break;
        }
        if (!runs->empty() && runs->back().block + runs->back().blocks == here.block) {
            ++runs->back().blocks;
        } else {
            runs->push_back(here);
        }
    }
    return result;
}

// One character for each equal share of the partition, by how much of it the chain takes.
static void print_picture(const struct bootside_walk &walk,
                          const std::vector<struct physical_run> &runs) {
    const uint32_t cells = picture_columns * picture_rows;
    const uint64_t share = (uint64_t{walk.data_blocks} + cells - 1) / cells;
    std::vector<uint64_t> taken(cells);
    for (const struct physical_run &run : runs) {
        const uint64_t end = uint64_t{run.block} + run.blocks;
        for (uint64_t at = run.block; at < end;) {
            const uint64_t until = std::min((at / share + 1) * share, end);
            taken[at / share] += until - at;
            at = until;
        }
    }
    fmt::print("\neach character is {}: . none, - up to half, + more, # all of the chain\n",
               counted(share, "block"));
    const uint64_t shown = (walk.data_blocks + share - 1) / share;
    for (uint64_t cell = 0; cell < shown; ++cell) {
        const uint64_t part = taken[cell];
        const uint64_t size = std::min(share, walk.data_blocks - cell * share);
        const char mark = part == 0 ? '.' : part == size ? '#' : part * 2 > size ? '+' : '-';
        const bool line_end = (cell + 1) % picture_columns == 0 || cell + 1 == shown;
        fmt::print("{}{}", mark, line_end ? "\n" : "");
    }
}

int map_command(struct disk_image *image) {
    struct bootside_walk walk = {};
    std::vector<struct physical_run> runs;
    enum bootside_result result = chain_walk_start(&walk, &image->port);
    if (result != bootside_ok) {
        return report_failure(*image, result, walk);
    }
    progress_begin(image, "walking", uint64_t{walk.n_blocks} * walk.block_length);
    result = find_runs(&walk, &runs);
    progress_end(image);
    fmt::print("{:>10} {:>10} {:>10} {:>16} {:>14}\n", "position", "block", "blocks", "byte offset",
               "bytes");
    for (const struct physical_run &run : runs) {
        fmt::print("{:>10} {:>10} {:>10} {:>16} {:>14}\n", run.position, run.block, run.blocks,
                   uint64_t{run.block} * walk.block_length,
                   uint64_t{run.blocks} * walk.block_length);
    }
    print_picture(walk, runs);
    return result == bootside_ok ? exit_good : report_failure(*image, result, walk);
}
