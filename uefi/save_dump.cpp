#include "uefi/save_dump.h"

#include "bootside/bootside.h"
#include "uefi/firmware.h"
#include "uefi/ram.h"
#include "uefi/storage.h"
#include "uefi/text.h"

static const size_t most_files = 40;
static const size_t boot_info_size = 16384;

// A file of the dump besides boot_info.txt: memory as it lies.
struct memory_file {
    char name[20];
    struct memory_range range;
    const char *kind;  // its key in boot_info.txt: log or ram
    bool fits;
};

struct dump_plan {
    struct memory_file files[most_files];  // small and precious first
    size_t count;
    size_t left_out_regions;  // for which there was no place in `files`
    struct memory_map map;
    size_t taken_count;
    struct memory_range taken;
    char boot_info[boot_info_size];
};

static void add_file(struct dump_plan *plan, const char *before, size_t number, bool is_only,
                     const char *after, const char *kind, const struct memory_range *range) {
    struct memory_file *file = &plan->files[plan->count++];
    struct text name = {file->name, sizeof(file->name) - 1, 0};
    add(&name, before);
    if (!is_only) {
        add(&name, decimal{number});
    }
    add(&name, after);
    file->name[name.length] = 0;
    file->range = *range;
    file->kind = kind;
}

static bool make_plan(const struct reserved_memory *reserved, struct dump_plan *plan) {
    *plan = {};
    if (!memory_map_read(&plan->map)) {
        return false;
    }
    for (size_t i = 0; i < reserved->log_count; ++i) {
        add_file(plan, "ramoops", i, reserved->log_count == 1, ".bin", "log", &reserved->logs[i]);
    }
    struct memory_range regions[most_files - 4];
    const size_t room = sizeof(regions) / sizeof(regions[0]);
    const size_t count = ram_regions(&plan->map, regions, room);
    for (size_t i = 0; i < count && i < room; ++i) {
        add_file(plan, "ddr_cs", i, false, ".bin", "ram", &regions[i]);
    }
    plan->left_out_regions = count > room ? count - room : 0;
    plan->taken_count = ram_taken_by_firmware(&plan->map, reserved, &plan->taken);
    return true;
}

// Marks the files that fit, in their order: a large one that does not fit leaves its place to those
// behind it. boot_info.txt counts as long as it may get, since it is written from what is found
// here.
static void choose_files(const struct bootside *boot, struct dump_plan *plan) {
    uint64_t sizes[most_files + 1] = {boot_info_size};
    size_t chosen = 1;
    for (size_t i = 0; i < plan->count; ++i) {
        sizes[chosen] = plan->files[i].range.size;
        plan->files[i].fits = bootside_need(boot, sizes, chosen + 1) <= bootside_capacity(boot);
        chosen += plan->files[i].fits ? 1 : 0;
    }
}

static void add_exactness(struct text *text, const struct dump_plan *plan) {
    if (plan->left_out_regions != 0) {
        add(text, "no, ", decimal{plan->left_out_regions}, " RAM regions have no file\n");
    } else if (plan->taken_count != 0) {
        add(text, "no, firmware memory lies outside of the reserved nodes, in ",
            decimal{plan->taken_count}, " places, the first ", hex{plan->taken.start}, " ",
            hex{plan->taken.size}, "\n");
    } else {
        add(text, "yes\n");
    }
}

static void add_time(struct text *text) {
    struct efi_time time;
    if (firmware->runtime->get_time(&time, nullptr) == 0) {
        add(text, "time: ", decimal{time.year, 4}, "-", decimal{time.month, 2}, "-",
            decimal{time.day, 2}, " ", decimal{time.hour, 2}, ":", decimal{time.minute, 2}, ":",
            decimal{time.second, 2}, "\n");
    }
}

// The memory map comes last: should the text be too long, only of it something is missing.
static void write_boot_info(struct text *text, const struct reserved_memory *reserved,
                            uint64_t tries, const struct dump_plan *plan) {
    add(text, "tarnix boot_info 1\n",
        "reason: no orderly shutdown (panic, hang or watchdog)\ntry: ", decimal{tries}, "\n");
    add_time(text);
    add(text, "firmware: ", firmware->firmware_vendor, " ", hex{firmware->firmware_revision},
        "\nexact: ");
    add_exactness(text, plan);
    for (size_t i = 0; i < plan->count; ++i) {
        const struct memory_file *file = &plan->files[i];
        add(text, file->kind, file->fits ? ": " : "-left-out: ", file->name, " ",
            hex{file->range.start}, " ", hex{file->range.size}, "\n");
    }
    for (size_t i = 0; i < reserved->node_count; ++i) {
        add(text, "reserved: ", hex{reserved->nodes[i].start}, " ", hex{reserved->nodes[i].size},
            "\n");
    }
    for (size_t i = 0; i < plan->map.count; ++i) {
        const struct efi_memory_descriptor *entry = &plan->map.entries[i];
        add(text, "memory-map: ", hex{entry->physical_start}, " ",
            hex{entry->pages * efi_page_size}, " ", memory_type_name(entry->type), "\n");
    }
}

// One file, begun and written. A refusal is said and leaves the dump as it was.
static enum bootside_result save_file(struct bootside *boot, const char *name, const void *data,
                                      uint64_t size) {
    const uint64_t start = now_ms();
    enum bootside_result result = bootside_begin_file(boot, name, size);
    if (result == bootside_ok) {
        result = bootside_write(boot, data, size);
    }
    if (result == bootside_ok) {
        say(name, ": ", decimal{size}, " bytes in ", decimal{now_ms() - start}, " ms");
    }
    return result;
}

static enum bootside_result save_files(struct bootside *boot,
                                       const struct reserved_memory *reserved, uint64_t tries,
                                       struct dump_plan *plan) {
    struct text info = {plan->boot_info, sizeof(plan->boot_info), 0};
    write_boot_info(&info, reserved, tries, plan);
    enum bootside_result result = bootside_begin_dump(boot, 0);
    if (result == bootside_ok) {
        result = save_file(boot, "boot_info.txt", info.start, info.length);
    }
    for (size_t i = 0; i < plan->count && result == bootside_ok; ++i) {
        const struct memory_file *file = &plan->files[i];
        if (!file->fits) {
            say(file->name, ": ", decimal{file->range.size},
                " bytes left out: they do not fit in what is left of the chain");
            continue;
        }
        result = save_file(boot, file->name, memory_at(file->range.start), file->range.size);
    }
    return result == bootside_ok ? bootside_finish(boot) : result;
}

static void say_refusal(const struct bootside *boot, enum bootside_result result) {
    const struct bootside_fault *fault = &boot->walk.fault;
    say("nothing saved: ", bootside_result_text(result));
    if (result < bootside_dump_pending) {  // the others have no place on the disk
        say("  position ", decimal{fault->position}, ", block ", decimal{fault->block}, ", offset ",
            decimal{fault->offset}, fault->in_misc != 0 ? " of misc" : " of userdata",
            ", expected ", hex{fault->expected}, ", found ", hex{fault->found});
    }
}

static void save_to(struct storage *storage, const struct reserved_memory *reserved,
                    uint64_t tries) {
    struct bootside boot;
    const uint64_t start = now_ms();
    enum bootside_result result = bootside_open(&boot, &storage->port);
    if (result != bootside_ok) {
        say_refusal(&boot, result);
        return;
    }
    const uint64_t verified = now_ms();
    say("chain of ", decimal{boot.walk.n_blocks}, " blocks in ", decimal{boot.runs},
        " runs verified in ", decimal{verified - start}, " ms");
    auto *plan = static_cast<struct dump_plan *>(allocate(sizeof(struct dump_plan)));
    if (plan == nullptr || !make_plan(reserved, plan)) {
        say("nothing saved: the firmware gives no memory, or no map of it");
        return;
    }
    choose_files(&boot, plan);
    if (plan->taken_count != 0) {
        say("the dump will not be exact: firmware memory at ", hex{plan->taken.start},
            " lies outside of the reserved nodes");
    }
    result = save_files(&boot, reserved, tries, plan);
    if (result != bootside_ok) {
        say_refusal(&boot, result);
        return;
    }
    say("saved in ", decimal{now_ms() - verified}, " ms, waits for the system");
}

void save_dump(const struct reserved_memory *reserved, uint64_t tries) {
    struct storage storage;
    const uint64_t start = now_ms();
    if (storage_open(&storage)) {
        say("misc and userdata found in ", decimal{now_ms() - start}, " ms");
        save_to(&storage, reserved, tries);
    }
}
