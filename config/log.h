// Log of the tool's own code: one tag, three priorities.
#ifndef TARNIX_CONFIG_LOG_H
#define TARNIX_CONFIG_LOG_H

#include <android/log.h>

// Tag under which `logcat -s tarnix_v3` shows a run.
#define TARNIX_LOG_TAG "tarnix_v3"

// Progress and printouts.
#define log_info(...) ((void)__android_log_print(ANDROID_LOG_INFO, TARNIX_LOG_TAG, __VA_ARGS__))
// A chain that was read to its end and does not verify.
#define log_warn(...) ((void)__android_log_print(ANDROID_LOG_WARN, TARNIX_LOG_TAG, __VA_ARGS__))
// Failures, and the milestones that must survive a log filtered to errors.
#define log_error(...) ((void)__android_log_print(ANDROID_LOG_ERROR, TARNIX_LOG_TAG, __VA_ARGS__))

#endif
