#include "tests/support/captured_log.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <stdarg.h>

#include <utility>

static std::string lines;

void capture_log() {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity severity,
                                const char *, const char *, unsigned, const char *message) {
        add_to_log(std::string(1, "VDIWEFF"[severity]) + " " + message + "\n");
    });
}

std::string take_log() {
    return std::exchange(lines, "");
}

void add_to_log(const std::string &line) {
    lines += line;
}

extern "C" int __wrap___android_log_print(int priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

extern "C" int __wrap___android_log_print(int priority, const char * /* tag */, const char *format,
                                          ...) {
    std::string line = std::string(1, "??VDIWEFS"[priority]) + " ";
    va_list arguments;
    va_start(arguments, format);
    android::base::StringAppendV(&line, format, arguments);
    va_end(arguments);
    add_to_log(line.back() == '\n' ? line : line + "<no line end>\n");
    return 0;
}
