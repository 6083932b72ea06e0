#include "bootside/bootside.h"

const char *bootside_result_text(enum bootside_result result) {
    switch (result) {
        case bootside_ok:
            return "done";
        case bootside_buffer_too_small:
            return "the working buffer is smaller than a block of the chain";
        case bootside_read_failed:
            return "a read failed";
        case bootside_write_failed:
            return "a write failed: the dump is incomplete and will not be announced";
        case bootside_flush_failed:
            return "a flush failed: the dump may be incomplete";
        case bootside_no_anchor:
            return "the anchor's magic is not there";
        case bootside_bad_block_length:
            return "the anchor's block length is impossible";
        case bootside_bad_block_count:
            return "the anchor's block count does not fit in the partition";
        case bootside_block_outside:
            return "a link leads out of the partition";
        case bootside_bad_block_magic:
            return "a block of the chain has lost its magic";
        case bootside_bad_block_crc:
            return "a block's link does not match its CRC";
        case bootside_chain_too_short:
            return "the chain ends before its announced length";
        case bootside_chain_too_long:
            return "the chain goes on past its announced length";
        case bootside_block_twice:
            return "the chain comes back to a block that it already holds";
        case bootside_dump_pending:
            return "a dump is already waiting for the device";
        case bootside_name_empty:
            return "the file name is empty";
        case bootside_name_too_long:
            return "the file name is longer than 19 characters";
        case bootside_name_not_plain:
            return "the file name holds a slash, or is . or ..";
        case bootside_size_zero:
            return "the file is empty: a file has at least 1 byte";
        case bootside_does_not_fit:
            return "the file does not fit in what is left of the chain";
        case bootside_data_missing:
            return "the file has been given fewer bytes than announced";
        case bootside_data_excess:
            return "the file is given more bytes than announced";
        case bootside_out_of_order:
            return "the call is out of order";
        case bootside_no_file:
            return "no file was begun";
    }
    return "unknown result";
}
