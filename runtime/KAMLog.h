#pragma once

#include <log/log.h>

#define KAM_LOG_TAG "_V_KAM"
#define KAM_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, KAM_LOG_TAG, __VA_ARGS__)
#define KAM_LOGW(...) __android_log_print(ANDROID_LOG_WARN, KAM_LOG_TAG, __VA_ARGS__)
#define KAM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, KAM_LOG_TAG, __VA_ARGS__)
