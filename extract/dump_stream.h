// The dump stream, taken apart into files.
#ifndef TARNIX_EXTRACT_DUMP_STREAM_H
#define TARNIX_EXTRACT_DUMP_STREAM_H

#include <stdint.h>

// Takes the next `len` bytes of the dump stream, one block's payload, and writes the files that it
// finds into ramdump_path. A file may run on from call to call. Returns 0 when all bytes were
// taken; -1 at the end of the dump or an error in it, with a line in the log, after which it is not
// to be called again; `len` itself when that is below 1.
int64_t process_data(uint8_t *data, int64_t len);

// The first error number with which the storage refused a byte or a file of the dump, up to the
// last sync_dump_files: no space left, the flash, no memory, no permission. 0 when it took all. A
// name that can never be opened is the dump's own fault and no such error.
int dump_storage_error();

// Whether the last file that was begun still lacks bytes: all of them, where it could not be
// opened.
bool dump_file_is_unfinished();

// Counts the bad magics met so far, in block headers and file headers alike, and says whether this
// one is to be passed over. Logs the one that is not: `got`, where `expected` should be.
bool pass_over_bad_magic(uint32_t got, uint32_t expected);

// Puts all that was written of the dump on flash, the file still open included, so that the flag of
// a pending dump is never cleared before its files are safe. Logs nothing; what could not be
// stored, dump_storage_error tells.
void sync_dump_files();

#endif
