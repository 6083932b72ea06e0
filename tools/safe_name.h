// Names that come from a disk, made harmless for a directory and a terminal.
#ifndef TARNIX_TOOLS_SAFE_NAME_H
#define TARNIX_TOOLS_SAFE_NAME_H

#include <string>

// `name` itself if it is a plain file name of printable ASCII; otherwise with "_" for each "/",
// each byte that is not printable and each dot of "..", and "unnamed" for an empty one.
std::string safe_name(const std::string &name);

#endif
