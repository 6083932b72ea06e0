// tarnix-chain: looks at, verifies, fills and empties the block chain of a device that is off.
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "tools/commands.h"

struct command_line {
    struct image_options image;
    bool json = false;
    bool replace = false;
    std::vector<std::string> files;
    std::string directory;
    bool force = false;
    bool pending_only = false;
};

static CLI::App *add_command(CLI::App *app, struct command_line *line, const char *name,
                             const char *about, const char *example) {
    CLI::App *command = app->add_subcommand(name, about);
    CLI::Option *disk = command->add_option(
        "--disk", line->image.disk,
        "Whole-disk image or block device, with both partitions in its GPT; where "
        "they are on different disks, use --misc and --data");
    CLI::Option *misc = command->add_option("--misc", line->image.misc, "The misc partition");
    CLI::Option *data = command->add_option("--data", line->image.data, "The data partition");
    command
        ->add_option("--data-name", line->image.data_name,
                     "GPT name of the data partition on the disk")
        ->default_val("userdata");
    disk->excludes(misc)->excludes(data);
    misc->needs(data);
    data->needs(misc);
    command->footer(fmt::format("Example:\n  tarnix-chain {} {}", name, example));
    return command;
}

static void add_commands(CLI::App *app, struct command_line *line) {
    CLI::App *status =
        add_command(app, line, "status", "Tell the state of the chain and the files of a dump",
                    "--disk phone.img");
    CLI::App *verify = add_command(
        app, line, "verify", "Walk the whole chain; exit status 0 intact, 1 not, 3 unreadable",
        "--misc misc.img --data userdata.img");
    CLI::App *map = add_command(app, line, "map", "Show where the chain lies on the data partition",
                                "--disk phone.img");
    CLI::App *pull =
        add_command(app, line, "pull", "Save the dump's files; the image stays as it is",
                    "--disk phone.img crash-0117");
    pull->add_option("DIR", line->directory, "Directory to write to, made if missing")->required();
    pull->add_flag("--force", line->force, "Replace files that exist");
    pull->add_flag("--pending-only", line->pending_only,
                   "Leave an old dump, whose flag is not set, alone");
    for (CLI::App *command : {status, verify, map, pull}) {
        command->add_flag("--json", line->json, "Print it as JSON");
    }
    CLI::App *write = add_command(app, line, "write", "Play the crash side: write a dump",
                                  "--disk phone.img DDRCS0.BIN=ram.bin OCIMEM.BIN=imem.bin");
    write->add_option("NAME=FILE", line->files, "The name in the dump, and the file to take")
        ->required();
    write->add_flag("--replace", line->replace, "Give up a dump that is pending");
}

static int run_command(const std::string &name, struct disk_image *image,
                       const struct command_line &line) {
    if (name == "status") {
        return status_command(image, line.json);
    }
    if (name == "verify") {
        return verify_command(image, line.json);
    }
    if (name == "map") {
        return map_command(image, line.json);
    }
    if (name == "write") {
        return write_command(image, line.files, line.replace);
    }
    return pull_command(image, {line.directory, line.force, line.pending_only, line.json});
}

static int run(int argc, char **argv) {
    CLI::App app("Works on the crash-dump chain of a device that is off, in an image of its disk.");
    struct command_line line;
    add_commands(&app, &line);
    app.require_subcommand(1);
    app.set_version_flag("--version", "tarnix-chain " TARNIX_VERSION);
    app.footer(
        "Example:\n  tarnix-chain verify --disk phone.img\n\n"
        "Exit status: 0 good; 1 chain not intact, dump incomplete or request refused;\n"
        "2 wrong usage; 3 an image or file cannot be read or written.  status has 0\n"
        "for a broken chain too: its verdict is in what it prints.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_good : exit_usage;
    }
    const std::string name = app.get_subcommands().front()->get_name();
    if (line.image.disk.empty() && line.image.misc.empty()) {
        fmt::print(stderr, "tarnix-chain: give the image with --disk, or with --misc and --data\n");
        return exit_usage;
    }
    std::string error;
    const auto image = open_disk_image(line.image, name == "write", &error);
    if (image == nullptr) {
        fmt::print(stderr, "tarnix-chain: {}\n", error);
        return exit_unreadable;
    }
    const int status = run_command(name, image.get(), line);
    if (fflush(stdout) != 0) {
        fmt::print(stderr, "tarnix-chain: cannot write the output: {}\n", strerror(errno));
        return exit_unreadable;
    }
    return status;
}

// An image must not be opened as descriptor 1 or 2: what is printed would be written into it.
static bool occupy_standard_descriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The output is open for reading alone, so that printing to it fails as it would without.
        const int flags = fd == STDOUT_FILENO ? O_RDONLY : O_RDWR;
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", flags) != fd) {
            return false;
        }
    }
    return true;
}

int main(int argc, char **argv) {
    if (!occupy_standard_descriptors()) {
        return exit_unreadable;
    }
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        // The libraries' own failures: memory, or a standard output that is closed.
        fprintf(stderr, "tarnix-chain: %s\n", error.what());
        return exit_unreadable;
    }
}
