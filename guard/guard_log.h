// Log of the guard: a tag of its own, so that its findings stand apart from the service's lines.
#ifndef TARNIX_GUARD_GUARD_LOG_H
#define TARNIX_GUARD_GUARD_LOG_H

#include <android/log.h>

// Tag under which `logcat -s tarnix_guard` shows what was found and done.
#define TARNIX_GUARD_LOG_TAG "tarnix_guard"

// All is well, or was put right without a loss.
#define guard_info(...) \
    ((void)__android_log_print(ANDROID_LOG_INFO, TARNIX_GUARD_LOG_TAG, __VA_ARGS__))
// Something is wrong, or cannot be looked at.
#define guard_error(...) \
    ((void)__android_log_print(ANDROID_LOG_ERROR, TARNIX_GUARD_LOG_TAG, __VA_ARGS__))

#endif
