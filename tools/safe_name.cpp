#include "tools/safe_name.h"

std::string safe_name(const std::string &name) {
    if (name.empty()) {
        return "unnamed";
    }
    std::string safe = name;
    for (char &c : safe) {
        if (c == '/' || c < ' ' || c > '~') {
            c = '_';
        }
    }
    for (size_t dots = safe.find(".."); dots != std::string::npos; dots = safe.find("..")) {
        safe.replace(dots, 2, "__");
    }
    if (safe == ".") {
        safe = "_";
    }
    return safe;
}
