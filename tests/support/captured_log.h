// What the code under test logs, in order.
#ifndef TARNIX_TESTS_SUPPORT_CAPTURED_LOG_H
#define TARNIX_TESTS_SUPPORT_CAPTURED_LOG_H

#include <string>

// From here on messages go to the captured log: those of __android_log_print (the linker leads
// their calls here) and those of libbase's LOG.
void capture_log();

// The lines since the last call, each with its priority's letter before it: "E create_file
// failed\n". A message without a line end is marked "<no line end>\n". A property that is set is
// a line too: "P key=value\n".
//
// Compare it as a whole with EXPECT_EQ, which shows two texts of several lines as a diff.
std::string take_log();

// Adds a line as it stands.
void add_to_log(const std::string &line);

#endif
