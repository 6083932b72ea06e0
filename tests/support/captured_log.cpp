#include "tests/support/captured_log.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <stdarg.h>
#include <string.h>

#include "config/log.h"

static std::string lines;

void capture_log() {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity severity,
                                const char *, const char *, unsigned, const char *message) {
        add_to_log(std::string(1, "VDIWEFF"[severity]) + " " + message + "\n");
    });
}

std::string take_log() {
    std::string taken;
    taken.swap(lines);
    return taken;
}

void add_to_log(const std::string &line) {
    lines += line;
}

extern "C" int __wrap___android_log_print(int priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

extern "C" int __wrap___android_log_print(int priority, const char *tag, const char *format, ...) {
    std::string text;
    va_list arguments;
    va_start(arguments, format);
    android::base::StringAppendV(&text, format, arguments);
    va_end(arguments);
    std::string line = std::string(1, "??VDIWEFS"[priority]) + " ";
    if (strcmp(tag, TARNIX_LOG_TAG) != 0) {
        line += std::string(tag) + ": ";
    }
    line += text;
    if (line.back() != '\n') {
        line += "<no line end>\n";
    }
    add_to_log(line);
    return static_cast<int>(text.size());
}
