// Error codes with their texts, the debug level and the diagnostics.
#include "qxcommon-util/error.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <syslog.h>

extern "C" {
QX_API int qx_errno = 0;
}

namespace {

int debug_level = 0;

constexpr std::array<const char *, 10> error_texts = {
    "success",          "Houston, we have a problem!",
    "assertion failed", "invalid value",
    "missing value",    "unknown command",
    "unknown key",      "tld error",
    "unknown tld type", "SQL exec failed",
};

// "unknown error " followed by twenty bytes for the number; only the part
// after the fourteenth character is ever rewritten. Shared by every call.
constexpr std::size_t unknown_prefix_length = 14;
char unknown_code_text[35] = "unknown error ....................";

bool level_enabled(int level) {
    return debug_level >= level;
}

// "message: error text" on the heap, or NULL when the level is off or memory
// is short. The message is cut to 127 bytes.
// Deliberate: strerror_r's result is ignored, so every error number it knows reads "unknown".
// The GNU strerror_r returns a pointer and only fills the buffer for numbers
// it does not know; its result is ignored on purpose, so every known number
// reads "unknown".
char *compose_error_message(int level, int errnum, const char *format, va_list ap) {
    if (!level_enabled(level))
        return nullptr;
    char message[128] = {};
    std::vsnprintf(message, sizeof message, format, ap);
    char error_text[64] = "unknown";
    [[maybe_unused]] const char *ignored = strerror_r(errnum, error_text, sizeof error_text);
    char *combined = nullptr;
    if (asprintf(&combined, "%s: %s", message, error_text) < 0)
        return nullptr;
    return combined;
}

} // namespace

extern "C" {

QX_API void qx_debug_set(int level) {
    debug_level = level;
}

QX_API int qx_debug_get(void) {
    return debug_level;
}

QX_API void qx_vdebug(int level, const char *format, va_list ap) {
    if (!level_enabled(level))
        return;
    std::vfprintf(stderr, format, ap);
    std::fflush(stderr);
}

QX_API void qx_debug(int level, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    qx_vdebug(level, format, ap);
    va_end(ap);
}

QX_API void qx_debug_tm(int level, const char *format, ...) {
    if (!level_enabled(level))
        return;
    timeval now{};
    gettimeofday(&now, nullptr);
    char stamp[100] = "";
    if (const std::tm *local = std::localtime(&now.tv_sec))
        std::strftime(stamp, sizeof stamp, "%b %d %H:%M:%S", local);
    std::fprintf(stderr, "%s.%06lu ", stamp, static_cast<unsigned long>(now.tv_usec));
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
    std::fflush(stderr);
}

QX_API void qx_syslog(int priority, const char *format, ...) {
    if (priority == LOG_DEBUG && debug_level == 0)
        return;
    va_list ap;
    va_start(ap, format);
    vsyslog(priority, format, ap);
    va_end(ap);
}

QX_API void qx_perror(int level, int errnum, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    char *text = compose_error_message(level, errnum, format, ap);
    va_end(ap);
    if (text == nullptr)
        return;
    std::fprintf(stderr, "%s\n", text);
    std::fflush(stderr);
    std::free(text);
}

QX_API void qx_syslog_perror(int priority, const char *format, ...) {
    const int errnum = errno;
    va_list ap;
    va_start(ap, format);
    char *text = compose_error_message(0, errnum, format, ap);
    va_end(ap);
    if (text == nullptr)
        return;
    qx_syslog(priority, "%s", text);
    std::free(text);
}

QX_API const char *qx_strerror(int code) {
    if (code >= 0 && code < static_cast<int>(error_texts.size())) {
        const char *text = code == QX_ERR_SYSTEM ? std::strerror(errno) : error_texts[code];
        if (text != nullptr)
            return text;
    }
    std::snprintf(unknown_code_text + unknown_prefix_length,
                  sizeof unknown_code_text - unknown_prefix_length - 1, "%d", code);
    return unknown_code_text;
}

QX_API int qx_strerror_r(int code, char *buf, size_t buflen) {
    if (buf == nullptr)
        return -1;
    return std::snprintf(buf, buflen, "%s", qx_strerror(code));
}

} // extern "C"
