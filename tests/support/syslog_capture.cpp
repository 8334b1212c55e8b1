#include "support/syslog_capture.hpp"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex entries_lock;
std::vector<qx_test::syslog_entry> &entries() {
    static std::vector<qx_test::syslog_entry> all;
    return all;
}

void record(int priority, const char *format, va_list ap) {
    va_list measure;
    va_copy(measure, ap);
    const int n = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string text(n > 0 ? static_cast<std::size_t>(n) : 0U, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, ap);
    std::lock_guard<std::mutex> hold(entries_lock);
    entries().push_back({priority, std::move(text)});
}

} // namespace

namespace qx_test {

std::vector<syslog_entry> syslog_entries() {
    std::lock_guard<std::mutex> hold(entries_lock);
    return entries();
}

void syslog_clear() {
    std::lock_guard<std::mutex> hold(entries_lock);
    entries().clear();
}

} // namespace qx_test

extern "C" {

void vsyslog(int priority, const char *format, va_list ap) {
    record(priority, format, ap);
}

void syslog(int priority, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    record(priority, format, ap);
    va_end(ap);
}

// The fortified forms, used when a caller is built with _FORTIFY_SOURCE.
void __vsyslog_chk(int priority, int, const char *format, va_list ap) {
    record(priority, format, ap);
}

void __syslog_chk(int priority, int, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    record(priority, format, ap);
    va_end(ap);
}

} // extern "C"
