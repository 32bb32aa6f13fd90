// The configurator's one way to the Android log: priority 4 (information),
// errors included, under one fixed tag. On a Linux host Debian's liblog
// writes each line to standard error.
#pragma once

#include <android/log.h>

#define QVR_LOG_TAG "QVR_KORVA (qvr_configurator)"

// printf-style; the format must be a literal so that -Wformat checks it.
#define QVR_LOG(...) __android_log_print(ANDROID_LOG_INFO, QVR_LOG_TAG, __VA_ARGS__)

static_assert(ANDROID_LOG_INFO == 4, "log lines go out at priority 4");

// The same with a va_list, for the reader's log sink.
#define QVR_VLOG(format, args) __android_log_vprint(ANDROID_LOG_INFO, QVR_LOG_TAG, format, args)
