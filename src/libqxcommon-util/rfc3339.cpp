// RFC 3339 date-times in local time.
#include "qxcommon-util/rfc3339.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace qx::detail {

namespace {

constexpr unsigned long seconds_per_hour = 3600;
constexpr unsigned long seconds_per_minute = 60;

// Deliberate: an offset of 100 hours or more is cut to the six-byte text ("100:0").
// "HH:MM" of an absolute offset; seconds of the offset are dropped. The hours
// are not bounded: from 100 hours on they take three digits or more, and the
// six-byte text then keeps only what fits (100 hours give "100:0"). Zone
// files can hold such offsets, and callers see the text cut this way.
// The whole text is formatted apart and its first five characters kept, as
// snprintf into the six bytes would keep them ("00:00" is the shortest).
void format_offset(unsigned long offset, char (&text)[6]) noexcept {
    char whole[48];
    std::snprintf(whole, sizeof whole, "%02lu:%02lu", offset / seconds_per_hour,
                  offset % seconds_per_hour / seconds_per_minute);
    std::memcpy(text, whole, sizeof text - 1);
    text[sizeof text - 1] = '\0';
}

} // namespace

} // namespace qx::detail

extern "C" {

QX_API int rfc3339_date(time_t when, char *dest, size_t size) {
    // A time localtime_r cannot break down leaves the zeroed record as it is.
    struct tm local {};
    (void)::localtime_r(&when, &local);

    char offset_text[6] = {};
    char sign = 'Z';
    if (local.tm_gmtoff != 0) {
        sign = local.tm_gmtoff > 0 ? '+' : '-';
        const long offset = local.tm_gmtoff;
        qx::detail::format_offset(offset > 0 ? static_cast<unsigned long>(offset)
                                             : 0UL - static_cast<unsigned long>(offset),
                                  offset_text);
    }
    return std::snprintf(dest, size, "%04d-%02d-%02dT%02d:%02d:%02d%c%s", local.tm_year + 1900,
                         local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                         sign, offset_text);
}

} // extern "C"
