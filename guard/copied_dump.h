#ifndef TARNIX_GUARD_COPIED_DUMP_H
#define TARNIX_GUARD_COPIED_DUMP_H

struct chain_links;
struct guarded_map;

enum copied_dump {
    dump_is_not_copied,
    // The file or its blocks cannot be read.
    dump_cannot_be_looked_for,
    // What the file holds in place of lost blocks may be the dump's, or older.
    dump_may_be_copied,
    dump_is_copied,
};

// Whether the map file's own blocks hold the pending dump whole, though the chain breaks off where
// `walked` ended: the file was moved or copied after the crash, and the old blocks were given away
// since. Each block of the file must then hold the header that the chain had in its place. Where an
// old block still has it, too, both must hold the same; one such block before the break shows when
// the file was moved, if that was done in one go. A file that was moved before the crash holds what
// was there before the dump.
enum copied_dump find_copied_dump(const struct guarded_map *map, const struct chain_links *walked);

// Whether the map file's first block holds a chain's header and then a dump file's: enough for the
// service, which looks at neither the CRCs nor the anchor's numbers. Never dump_may_be_copied.
enum copied_dump find_dump_at_beginning(const struct guarded_map *map);

#endif
