// What the commands tell a program. A fact has the same words in the output of each.
#ifndef TARNIX_TOOLS_CHAIN_JSON_H
#define TARNIX_TOOLS_CHAIN_JSON_H

#include <nlohmann/json.hpp>

#include "tools/chain_report.h"
#include "tools/dump_reader.h"

// state, verdict, anchor; where something is wrong fault, copy and next.
nlohmann::json chain_json(const struct disk_image &image, const struct chain_finding &finding);

// name, size, present.
nlohmann::json file_json(const struct dump_file &file);

// Prints it on standard output, in characters that a terminal shows.
void print_json(const nlohmann::json &json);

#endif
