#pragma once

#include <android/log.h>

#include <cstdio>

// Process-wide logging settings. The HAL service sets them once, early; the
// library only reads them, from every thread.
class kiv_log {
  public:
    enum log_level : int {
        SILENT = 0,
        ERROR = 1,
        INFO = 2,
        DEBUG = 3,
        VERBOSE = 4,
    };

    static log_level get_level();
    static void set_level(log_level level);

    // The tag is kept as the caller's pointer; the text must outlive every
    // later log statement.
    static const char* get_tag();
    static void set_tag(const char* tag);

    static bool get_stderr_logging();
    static void set_stderr_logging(bool enabled);

    kiv_log() = delete;
};

// The name of the operation a file-local helper writes its lines for. A line
// carries the name of the operation whose work it reports, not the helper's:
// the operation hands KIV_LOG_OP down, the helper logs with the _FOR macros.
// The line number stays the statement's own.
struct kiv_log_op {
    const char* name;
};
#define KIV_LOG_OP (kiv_log_op{__func__})

// The level is tested before anything is formatted; standard error gets the
// identical text with its own line end, after the Android log call.
#define KIV_LOG_NAMED(threshold, priority, func, fmt, ...)                                    \
    do {                                                                                      \
        if (kiv_log::get_level() >= (threshold)) {                                            \
            const char* const kiv_log_func_ = (func);                                         \
            __android_log_print((priority), kiv_log::get_tag(), "%s:%d, " fmt, kiv_log_func_, \
                                __LINE__, ##__VA_ARGS__);                                     \
            if (kiv_log::get_stderr_logging()) {                                              \
                fprintf(stderr, "%s:%d, " fmt "\n", kiv_log_func_, __LINE__, ##__VA_ARGS__);  \
            }                                                                                 \
        }                                                                                     \
    } while (0)

#define KIV_LOG_AT(threshold, priority, fmt, ...) \
    KIV_LOG_NAMED(threshold, priority, __func__, fmt, ##__VA_ARGS__)

#define KIV_LOGE(fmt, ...) KIV_LOG_AT(kiv_log::ERROR, ANDROID_LOG_ERROR, fmt, ##__VA_ARGS__)
#define KIV_LOGI(fmt, ...) KIV_LOG_AT(kiv_log::INFO, ANDROID_LOG_INFO, fmt, ##__VA_ARGS__)
#define KIV_LOGD(fmt, ...) KIV_LOG_AT(kiv_log::DEBUG, ANDROID_LOG_DEBUG, fmt, ##__VA_ARGS__)
#define KIV_LOGV(fmt, ...) KIV_LOG_AT(kiv_log::VERBOSE, ANDROID_LOG_VERBOSE, fmt, ##__VA_ARGS__)

// In a helper, for the operation `op` (a kiv_log_op).
#define KIV_LOGE_FOR(op, fmt, ...) \
    KIV_LOG_NAMED(kiv_log::ERROR, ANDROID_LOG_ERROR, (op).name, fmt, ##__VA_ARGS__)
#define KIV_LOGI_FOR(op, fmt, ...) \
    KIV_LOG_NAMED(kiv_log::INFO, ANDROID_LOG_INFO, (op).name, fmt, ##__VA_ARGS__)
#define KIV_LOGD_FOR(op, fmt, ...) \
    KIV_LOG_NAMED(kiv_log::DEBUG, ANDROID_LOG_DEBUG, (op).name, fmt, ##__VA_ARGS__)
#define KIV_LOGV_FOR(op, fmt, ...) \
    KIV_LOG_NAMED(kiv_log::VERBOSE, ANDROID_LOG_VERBOSE, (op).name, fmt, ##__VA_ARGS__)
