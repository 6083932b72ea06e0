// Transfers of an exact number of bytes, and the files for them.
#ifndef TARNIX_CHAIN_TRANSFER_H
#define TARNIX_CHAIN_TRANSFER_H

#include <stddef.h>
#include <sys/types.h>

// open(), again after EINTR.
int open_retry(const char *path, int flags, mode_t mode = 0);

// Reads or writes exactly `length` bytes, however many calls that takes, again after EINTR. 0 when
// all are done, -1 after any other error, which is logged. A read at the end of a file or device
// never returns: it tries again for ever.
int read_retry(int fd, void *buffer, size_t length);
int write_retry(int fd, const void *buffer, size_t length);

#endif
