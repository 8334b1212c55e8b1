// printf-style text, times and named-placeholder templates into a strbuf.
#include "qxcommon-util/strbuf_format.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/types.h>

#include "internal/strbuf_growth.hpp"

using qx::detail::round_to_kib_less_one;
using qx::detail::strbuf_move;

namespace {

// vsnprintf's count widened as a signed value: a format error (-1) becomes a
// huge count.
std::size_t as_count(int formatted) noexcept {
    return static_cast<std::size_t>(static_cast<ssize_t>(formatted));
}

char *text_end(const strbuf *sb) noexcept {
    return sb->text == nullptr ? nullptr : sb->text + sb->length;
}

// The measuring pass may have written over the NUL at the end of the text;
// a failure puts it back so that the caller's text reads as before.
int fail_keeping_text(strbuf *sb) noexcept {
    if (sb->text != nullptr && sb->size > sb->length)
        sb->text[sb->length] = '\0';
    return -1;
}

// One placeholder's worth of the template: the name and value of the pair
// that matched, or no name.
struct pair_match {
    const char *name = nullptr;
    const char *value = nullptr;
    std::size_t name_length = 0;
};

// Tries the pairs in argument order on the placeholder opening at p; the
// first pair whose name is followed by the delimiter again wins.
pair_match match_pair(const char *p, const char *delimiter, std::size_t d, va_list pairs) {
    va_list args;
    va_copy(args, pairs);
    pair_match match;
    while (const char *name = va_arg(args, const char *)) {
        const char *value = va_arg(args, const char *);
        const std::size_t n = std::strlen(name);
        if (std::strncmp(p + d, name, n) == 0 && std::strncmp(p + d + n, delimiter, d) == 0) {
            match = {name, value, n};
            break;
        }
    }
    va_end(args);
    return match;
}

// Appends the template text before a placeholder and the value standing for
// it; false when an append failed.
bool append_substitution(strbuf *out, const char *segment, const char *placeholder,
                         const char *value) {
    const auto gap = static_cast<std::size_t>(placeholder - segment);
    if (strbuf_nappend(out, segment, gap) != 0)
        return false;
    return value == nullptr || strbuf_append(out, value) == 0;
}

// strbuf_vappendf on a text whose length was just set to 0, growing first
// when the text will not fit: the measuring pass then writes nothing over the
// old bytes, which a failed growth leaves in place, as strbuf_put does. The
// sizes are those strbuf_vappendf would give.
int replace_formatted(strbuf *sb, const char *format, va_list ap) {
    va_list measure;
    va_copy(measure, ap);
    const std::size_t count = as_count(std::vsnprintf(nullptr, 0, format, measure));
    va_end(measure);
    if (count >= sb->size - sb->length) {
        const std::size_t newsize = round_to_kib_less_one(count + sb->size + 1);
        if (newsize < sb->size)
            return -1;
        void *block = std::realloc(sb->text, newsize);
        if (block == nullptr)
            return -1;
        sb->text = static_cast<char *>(block);
        sb->size = newsize;
    }
    return strbuf_vappendf(sb, format, ap);
}

} // namespace

extern "C" {

QX_API int strbuf_vappendf(strbuf *sb, const char *format, va_list ap) {
    const std::size_t room = sb->size - sb->length;
    va_list first;
    va_copy(first, ap);
    const std::size_t count = as_count(std::vsnprintf(text_end(sb), room, format, first));
    va_end(first);
    if (count < room) {
        sb->length += count;
        return 0;
    }
    const std::size_t newsize = round_to_kib_less_one(count + sb->size + 1);
    if (newsize < sb->size)
        return fail_keeping_text(sb);
    void *block = std::realloc(sb->text, newsize);
    if (block == nullptr)
        return fail_keeping_text(sb);
    sb->text = static_cast<char *>(block);
    sb->size = newsize;
    // Deliberate: a format error shortens the length by one and still gives 0; callers see that.
    // The second pass is trusted as it stands: a format error therefore
    // shortens the length by one while 0 is returned. Callers have long seen
    // this behaviour, so it is kept.
    sb->length += as_count(std::vsnprintf(sb->text + sb->length, newsize - sb->length, format, ap));
    return 0;
}

QX_API int strbuf_appendf(strbuf *sb, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    const int result = strbuf_vappendf(sb, format, ap);
    va_end(ap);
    return result;
}

QX_API int strbuf_putf(strbuf *sb, const char *format, ...) {
    sb->length = 0;
    va_list ap;
    va_start(ap, format);
    const int result = replace_formatted(sb, format, ap);
    va_end(ap);
    return result;
}

QX_API int strbuf_prependf(strbuf *sb, const char *format, ...) {
    strbuf scratch{};
    va_list ap;
    va_start(ap, format);
    const int formatted = strbuf_vappendf(&scratch, format, ap);
    va_end(ap);
    if (formatted != 0) {
        strbuf_free(&scratch);
        return -1;
    }
    if (sb->text != nullptr && strbuf_nappend(&scratch, sb->text, sb->length) != 0) {
        strbuf_free(&scratch);
        return -1;
    }
    std::free(sb->text);
    strbuf_move(sb, &scratch);
    return 0;
}

QX_API int qx_string_append_luint(strbuf *sb, unsigned long value) {
    return strbuf_appendf(sb, "%lu", value);
}

QX_API int qx_string_append_lsint(strbuf *sb, long value) {
    return strbuf_appendf(sb, "%ld", value);
}

QX_API int strbuf_appendf_tm(strbuf *sb, const char *format, const struct tm *tm) {
    char scratch[1000];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const std::size_t n = ::strftime(scratch, sizeof scratch, format, tm);
#pragma GCC diagnostic pop
    if (n == 0)
        return -1;
    return strbuf_nappend(sb, scratch, n);
}

QX_API int strbuf_appendf_time_t(strbuf *sb, const char *format, time_t t,
                                 strbuf_time_conversion convert) {
    const time_t copy = t;
    const struct tm *tm = convert(&copy);
    if (tm == nullptr)
        return -1;
    return strbuf_appendf_tm(sb, format, tm);
}

QX_API int strbuf_appendf_localtime(strbuf *sb, const char *format, time_t t) {
    return strbuf_appendf_time_t(sb, format, t, ::localtime);
}

QX_API int strbuf_appendf_gmtime(strbuf *sb, const char *format, time_t t) {
    return strbuf_appendf_time_t(sb, format, t, ::gmtime);
}

QX_API int strbuf_vasubstitute(strbuf *sb, const char *delimiter, va_list pairs) {
    if (delimiter == nullptr || sb->text == nullptr)
        return -1;
    const std::size_t d = std::strlen(delimiter);
    const char *const text = sb->text;
    const char *const end = text + std::strlen(text);
    strbuf out{};
    int count = 0;
    const char *segment = text;
    const char *p = text;
    while (p < end) {
        if (std::strncmp(p, delimiter, d) != 0) {
            ++p;
            continue;
        }
        const pair_match match = match_pair(p, delimiter, d, pairs);
        if (match.name == nullptr) {
            // An unknown placeholder stays as it is; its closing delimiter
            // may open the next one.
            ++p;
            continue;
        }
        // A failed append sets the count to -1, and a later success counts
        // up from there again; only a final -1 is reported as failure.
        if (append_substitution(&out, segment, p, match.value))
            ++count;
        else
            count = -1;
        segment = p + d + match.name_length + d;
        if (segment == end)
            break;
        // The byte right after a closing delimiter is never examined as an
        // opening one, so touching placeholders are not both replaced.
        p = segment + 1;
    }
    if (count == -1) {
        strbuf_free(&out);
        return -1;
    }
    // The rest of the template; an empty template still allocates here.
    strbuf_nappend(&out, segment, static_cast<std::size_t>(end - segment));
    strbuf_free(sb);
    strbuf_move(sb, &out);
    return count;
}

QX_API int strbuf_substitute(strbuf *sb, const char *delimiter, ...) {
    va_list pairs;
    va_start(pairs, delimiter);
    const int result = strbuf_vasubstitute(sb, delimiter, pairs);
    va_end(pairs);
    return result;
}

} // extern "C"
