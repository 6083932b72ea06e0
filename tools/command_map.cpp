#include <fmt/format.h>

#include <algorithm>

#include "bootside/chain_walk.h"
#include "tools/chain_access.h"
#include "tools/chain_json.h"
#include "tools/commands.h"
#include "tools/progress_bar.h"

struct physical_run {
    uint32_t position;  // of its first block in the chain
    uint32_t block;
    uint32_t blocks;
};

static const uint32_t picture_columns = 64;
static const uint32_t picture_cells = 16 * picture_columns;

// What is listed is bounded by this; a forged chain may have any number of runs.
static const size_t most_runs = 65536;

struct chain_map {
    uint64_t share;               // blocks of the partition behind each cell of the picture
    std::vector<uint64_t> taken;  // of each share, the blocks that are the chain's
    uint64_t runs;
    std::vector<struct physical_run> listed;  // the first most_runs of them
};

static enum bootside_result find_runs(struct bootside_walk *walk, struct chain_map *map) {
    enum bootside_result result = bootside_ok;
    uint32_t following = 0;  // the block that would carry the last run on
    map->share = (uint64_t{walk->data_blocks} + picture_cells - 1) / picture_cells;
    map->taken.resize(picture_cells);
    while (result == bootside_ok && walk->position < walk->n_blocks) {
        const struct physical_run here = {walk->position, walk->block, 0};
        result = chain_walk_step(walk);
        if (result != bootside_ok) {
            break;
        }
        ++map->taken[here.block / map->share];
        if (here.block != following && ++map->runs <= most_runs) {
            map->listed.push_back(here);
        }
        if (map->runs <= most_runs) {
            ++map->listed.back().blocks;
        }
        following = here.block + 1;
    }
    return result;
}

// One character for each equal share of the partition, by how much of it the chain takes.
static void print_picture(const struct bootside_walk &walk, const struct chain_map &map) {
    fmt::print("\neach character is {}: . none, - up to half, + more, # all of the chain\n",
               counted(map.share, "block"));
    const uint64_t shown = (walk.data_blocks + map.share - 1) / map.share;
    for (uint64_t cell = 0; cell < shown; ++cell) {
        const uint64_t part = map.taken[cell];
        const uint64_t size = std::min(map.share, walk.data_blocks - cell * map.share);
        const char mark = part == 0 ? '.' : part == size ? '#' : part * 2 > size ? '+' : '-';
        const bool line_end = (cell + 1) % picture_columns == 0 || cell + 1 == shown;
        fmt::print("{}{}", mark, line_end ? "\n" : "");
    }
}

static void print_text(const struct bootside_walk &walk, const struct chain_map &map) {
    fmt::print("{:>10} {:>10} {:>10} {:>16} {:>14}\n", "position", "block", "blocks", "byte offset",
               "bytes");
    for (const struct physical_run &run : map.listed) {
        fmt::print("{:>10} {:>10} {:>10} {:>16} {:>14}\n", run.position, run.block, run.blocks,
                   uint64_t{run.block} * walk.block_length,
                   uint64_t{run.blocks} * walk.block_length);
    }
    if (map.runs > map.listed.size()) {
        fmt::print("and {} more\n", map.runs - map.listed.size());
    }
    print_picture(walk, map);
}

static void print_as_json(const struct disk_image &image, const struct chain_finding &finding,
                          const struct chain_map &map) {
    nlohmann::json out = chain_json(image, finding);
    nlohmann::json listed = nlohmann::json::array();
    for (const struct physical_run &run : map.listed) {
        listed.push_back(
            {{"position", run.position}, {"block", run.block}, {"blocks", run.blocks}});
    }
    out["runs"] = map.runs;
    out["map"] = std::move(listed);
    print_json(out);
}

int map_command(struct disk_image *image, bool json) {
    struct chain_map map = {};
    struct chain_finding finding = {};
    finding.result = chain_walk_start(&finding.walk, &image->port);
    const bool has_map = finding.result == bootside_ok;
    if (has_map) {
        progress_begin(image, "walking", bytes_to_read(*image, finding.walk));
        finding.result = find_runs(&finding.walk, &map);
        progress_end(image);
    }
    if (json) {
        print_as_json(*image, finding, map);
    } else if (has_map) {
        print_text(finding.walk, map);
    }
    return finding.result == bootside_ok || json ? exit_status_of(finding.result)
                                                 : report_failure(*image, finding);
}
