// The library's one way to log: the Android log under the tag "zem_sdk".
//
// Progress goes out at INFO (4), failures at ERROR (6). On a device the lines
// land in logcat; on a Linux host the real liblog prints them to stderr as
// "zem_sdk I <date> <pid> <tid> <message>".
//
//   ZEM_LOGI("%s: SPC registration succeeded", name.c_str());
//   ZEM_LOGE("Error opening cache directory: %s", dir.c_str());
#pragma once

#include <android/log.h>

#define ZEM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "zem_sdk", __VA_ARGS__)
#define ZEM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "zem_sdk", __VA_ARGS__)
