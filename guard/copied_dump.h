#ifndef TARNIX_GUARD_COPIED_DUMP_H
#define TARNIX_GUARD_COPIED_DUMP_H

struct chain_links;
struct guarded_map;

// Whether the map file's own blocks hold the pending dump whole, though the chain breaks off where
// `walked` ended: the file was moved or copied after the crash, and the old blocks were given away
// since. Each block of the file must then hold the header that the chain had in its place; and
// where an old block still has it, too, both must hold the same, in at least one block before the
// break. A file that was moved before the crash holds what was there before the dump.
bool file_holds_dump(const struct guarded_map *map, const struct chain_links *walked);

// Whether the map file's first block holds a chain's header and then a dump file's: enough for the
// service, which looks at neither the CRCs nor the anchor's numbers.
bool file_begins_dump(const struct guarded_map *map);

#endif
