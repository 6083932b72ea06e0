// Transfers of an exact number of bytes.
#ifndef TARNIX_CHAIN_TRANSFER_H
#define TARNIX_CHAIN_TRANSFER_H

#include <stddef.h>

// Reads or writes exactly `length` bytes, however many calls that takes, again after EINTR. 0 when
// all are done, -1 after any other error, which is logged. A read at the end of a file or device
// never returns: it tries again for ever.
int read_retry(int fd, void *buffer, size_t length);
int write_retry(int fd, const void *buffer, size_t length);

#endif
