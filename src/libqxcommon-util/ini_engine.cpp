// The INI engine: line syntax, lookups, enumeration and browsing.
//
// Every call opens the file, scans it from the first line and closes it
// before returning; there is no parsed tree and nothing survives a call. All
// working storage is on the stack: one 512-byte line buffer per call, and the
// buffer of the call's stream (given to stdio with setvbuf, so that stdio
// allocates nothing but the FILE record fopen itself needs).
// The assertions are part of the engine's behaviour: keep them in every build.
#undef NDEBUG
#include "qxcommon-util/ini.h"

#include <assert.h>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "internal/ini_engine.hpp"

// The engine's checks report like the C library's assert ("file:line:
// function: Assertion `expression' failed.") and abort. They guard the
// engine's contracts, so they stay active whether or not NDEBUG is defined,
// and they name the bare function, which C++'s assert would not.
#define INI_ASSERT(expression)                                                                     \
    ((expression) ? static_cast<void>(0) : __assert_fail(#expression, __FILE__, __LINE__, __func__))

namespace qx::detail {

#ifdef QX_INI_ENGINE_TEST_SEAMS
void (*ini_test_corrupt)(char *checked_byte) = nullptr;
#define INI_TEST_SEAM(byte) (ini_test_corrupt != nullptr ? ini_test_corrupt(byte) : void())
#else
#define INI_TEST_SEAM(byte) static_cast<void>(0)
#endif

namespace {

// The room stdio gets for each stream, on the caller's stack.
constexpr std::size_t stream_buffer_size = 4096;

// Bytes 1..32 and, taken as signed, every byte from 0x80 on are blanks:
// non-ASCII bytes at the edges of keys and values are trimmed like spaces.
constexpr bool is_blank(char c) noexcept {
    return static_cast<signed char>(c) <= 32 && c != '\0';
}

char *skipleading(char *str) noexcept {
    while (is_blank(*str))
        ++str;
    return str;
}

// Walks back from str over blanks, never before base.
char *skiptrailing(char *str, const char *base) noexcept {
    while (str > base && is_blank(str[-1]))
        --str;
    return str;
}

char *trim_trailing_blanks(char *str) noexcept {
    char *end = skiptrailing(str + std::strlen(str), str);
    *end = '\0';
    return str;
}

// "=" wins over an earlier ":"; ":" counts only on lines without "=".
char *find_separator(char *line) noexcept {
    char *sep = std::strchr(line, '=');
    return sep != nullptr ? sep : std::strchr(line, ':');
}

// Names compare case-insensitively over equal lengths.
bool names_match(const char *name, std::size_t length, const char *wanted,
                 std::size_t wanted_length) noexcept {
    return length == wanted_length && (length == 0 || strncasecmp(name, wanted, length) == 0);
}

// Cuts the value at a ";" or "#" outside double quotes and at its trailing
// blanks; a value enclosed in double quotes loses them and is to be copied in
// dequote mode. Works in place and returns the start of the value.
char *clean_value(char *string, quote_mode *quotes) noexcept {
    bool in_quotes = false;
    char *ep = string;
    while (*ep != '\0' && ((*ep != ';' && *ep != '#') || in_quotes)) {
        if ((*ep == '"' || *ep == '\\') && ep[1] == '"') {
            ep += 2; // an escaped quote never opens or closes a string
            continue;
        }
        if (*ep == '"')
            in_quotes = !in_quotes;
        ++ep;
    }
    *ep = '\0';
    trim_trailing_blanks(string);
    *quotes = quote_mode::plain;
    const std::size_t length = std::strlen(string);
    if (length > 0 && string[0] == '"' && string[length - 1] == '"') {
        string[length - 1] = '\0';
        if (length > 1)
            ++string;
        *quotes = quote_mode::dequote;
    }
    return string;
}

// Opens a stream whose buffer is the caller's, so stdio does not allocate one.
FILE *open_stream(const char *name, const char *mode, char (&buffer)[stream_buffer_size]) noexcept {
    FILE *fp = std::fopen(name, mode);
    if (fp != nullptr)
        std::setvbuf(fp, buffer, _IOFBF, sizeof buffer);
    return fp;
}

} // namespace

char *save_strncpy(char *dest, const char *source, std::size_t maxlen, quote_mode option) noexcept {
    INI_ASSERT(maxlen > 0);
    // Copying towards lower addresses inside one buffer is allowed (browsing
    // moves the key and value to the front of its line buffer).
    INI_ASSERT(dest <= source || dest >= source + maxlen);
    if (option == quote_mode::enquote && maxlen < 3)
        option = quote_mode::plain; // no room for the quotes
    std::size_t d = 0;
    switch (option) {
    case quote_mode::plain:
        for (; d < maxlen - 1 && source[d] != '\0'; ++d)
            dest[d] = source[d];
        dest[d] = '\0';
        break;
    case quote_mode::enquote:
        dest[d++] = '"';
        for (std::size_t s = 0; source[s] != '\0' && d < maxlen - 2; ++s) {
            if (source[s] == '"') {
                if (d >= maxlen - 3)
                    break; // the escaped quote would not fit
                dest[d++] = '\\';
            }
            dest[d++] = source[s];
        }
        dest[d++] = '"';
        dest[d] = '\0';
        break;
    case quote_mode::dequote:
        for (std::size_t s = 0; source[s] != '\0' && d < maxlen - 1; ++s) {
            if ((source[s] == '\\' || source[s] == '"') && source[s + 1] == '"')
                ++s;
            dest[d++] = source[s];
        }
        dest[d] = '\0';
        break;
    default:
        INI_ASSERT(0);
    }
    return dest;
}

// A negative index means "search by name". With a section index the section
// phase alone decides and the section's name is copied; with a key index the
// key's name is copied; otherwise the key's cleaned value.
bool getkeystring(FILE *fp, const char *Section, const char *Key, int idxSection, int idxKey,
                  char *Buffer, int BufferSize) noexcept {
    INI_ASSERT(Key != NULL || idxKey >= 0);
    char LocalBuffer[ini_buffer_size];
    char *sp = nullptr;
    char *ep = nullptr;

    const std::size_t section_length = Section != nullptr ? std::strlen(Section) : 0;
    if (idxSection >= 0 || section_length > 0) {
        int idx = -1;
        for (;;) {
            if (std::fgets(LocalBuffer, sizeof LocalBuffer, fp) == nullptr)
                return false;
            sp = skipleading(LocalBuffer);
            ep = std::strchr(sp, ']');
            if (*sp != '[' || ep == nullptr)
                continue;
            if (names_match(sp + 1, static_cast<std::size_t>(ep - sp - 1), Section, section_length))
                break;
            if (++idx == idxSection)
                break;
        }
        if (idxSection >= 0) {
            // Deliberate: enumerating with no name, a "[]" header matches the
            // empty name and ends the enumeration as not found.
            if (idx != idxSection)
                return false;
            INI_TEST_SEAM(ep);
            INI_ASSERT(*ep == ']');
            *ep = '\0';
            save_strncpy(Buffer, sp + 1, static_cast<std::size_t>(BufferSize), quote_mode::plain);
            return true;
        }
    }

    const std::size_t key_length = Key != nullptr ? std::strlen(Key) : 0;
    int idx = -1;
    for (;;) {
        if (std::fgets(LocalBuffer, sizeof LocalBuffer, fp) == nullptr)
            return false;
        sp = skipleading(LocalBuffer);
        if (*sp == '[')
            return false; // the next section begins
        if (*sp == ';' || *sp == '#')
            continue;
        ep = find_separator(sp);
        if (ep == nullptr)
            continue;
        const char *key_end = skiptrailing(ep, sp);
        // Deliberate: enumerating by index, an empty key matches the missing
        // name and ends the enumeration.
        if (names_match(sp, static_cast<std::size_t>(key_end - sp), Key, key_length))
            break;
        if (++idx == idxKey)
            break;
    }
    if (idxKey >= 0) {
        if (idx != idxKey)
            return false;
        *ep = '\0';
        trim_trailing_blanks(sp);
        save_strncpy(Buffer, sp, static_cast<std::size_t>(BufferSize), quote_mode::plain);
        return true;
    }
    INI_TEST_SEAM(ep);
    INI_ASSERT(*ep == '=' || *ep == ':');
    quote_mode quotes;
    char *value = clean_value(skipleading(ep + 1), &quotes);
    save_strncpy(Buffer, value, static_cast<std::size_t>(BufferSize), quotes);
    return true;
}

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API int ini_gets(const char *section, const char *key, const char *def_value, char *buffer,
                    int buffer_size, const char *filename) {
    if (buffer == nullptr || buffer_size <= 0 || key == nullptr)
        return 0;
    char stream_buffer[stream_buffer_size];
    bool found = false;
    if (FILE *fp = open_stream(filename, "r", stream_buffer); fp != nullptr) {
        found = getkeystring(fp, section, key, -1, -1, buffer, buffer_size);
        std::fclose(fp);
    }
    if (!found)
        save_strncpy(buffer, def_value, static_cast<std::size_t>(buffer_size), quote_mode::plain);
    return static_cast<int>(std::strlen(buffer));
}

QX_API long ini_getl(const char *section, const char *key, long def_value, const char *filename) {
    char text[64];
    const int length = ini_gets(section, key, "", text, sizeof text, filename);
    if (length == 0)
        return def_value;
    // "0x1F" is hexadecimal, and so is "1x" (deliberate); "-0x10" is not.
    const int base = (length > 1 && (text[1] == 'x' || text[1] == 'X')) ? 16 : 10;
    return std::strtol(text, nullptr, base);
}

QX_API float ini_getf(const char *section, const char *key, float def_value, const char *filename) {
    char text[64];
    if (ini_gets(section, key, "", text, sizeof text, filename) == 0)
        return def_value;
    return static_cast<float>(std::strtod(text, nullptr));
}

QX_API int ini_getbool(const char *section, const char *key, int def_value, const char *filename) {
    char text[2];
    ini_gets(section, key, "", text, sizeof text, filename);
    switch (std::toupper(static_cast<unsigned char>(text[0]))) {
    case '1':
    case 'T':
    case 'Y':
        return 1;
    case '0':
    case 'F':
    case 'N':
        return 0;
    default:
        return def_value;
    }
}

QX_API int ini_getsection(int index, char *buffer, int buffer_size, const char *filename) {
    if (buffer == nullptr || buffer_size <= 0 || index < 0)
        return 0;
    char stream_buffer[stream_buffer_size];
    bool found = false;
    if (FILE *fp = open_stream(filename, "r", stream_buffer); fp != nullptr) {
        found = getkeystring(fp, nullptr, nullptr, index, 0, buffer, buffer_size);
        std::fclose(fp);
    }
    if (!found)
        *buffer = '\0';
    return static_cast<int>(std::strlen(buffer));
}

QX_API int ini_getkey(const char *section, int index, char *buffer, int buffer_size,
                      const char *filename) {
    if (buffer == nullptr || buffer_size <= 0 || index < 0)
        return 0;
    char stream_buffer[stream_buffer_size];
    bool found = false;
    if (FILE *fp = open_stream(filename, "r", stream_buffer); fp != nullptr) {
        found = getkeystring(fp, section, nullptr, -1, index, buffer, buffer_size);
        std::fclose(fp);
    }
    if (!found)
        *buffer = '\0';
    return static_cast<int>(std::strlen(buffer));
}

// The line buffer holds the current section name with its zero at the front;
// lines are read into the rest of it, so after a long section name the lines
// are read in smaller pieces.
QX_API int ini_browse_int(ini_browse_callback callback, void *user_data, const char *filename,
                          int flags) {
    if (callback == nullptr)
        return 0;
    char stream_buffer[stream_buffer_size];
    FILE *fp = open_stream(filename, "r", stream_buffer);
    if (fp == nullptr)
        return 0;
    char LocalBuffer[ini_buffer_size];
    LocalBuffer[0] = '\0';
    std::size_t section_room = 1; // the name and its zero
    for (;;) {
        char *line = LocalBuffer + section_room;
        const int line_room = static_cast<int>(ini_buffer_size - section_room);
        if (std::fgets(line, line_room, fp) == nullptr)
            break;
        char *sp = skipleading(line);
        if (char *ep = std::strchr(sp, ']'); *sp == '[' && ep != nullptr) {
            *ep = '\0';
            save_strncpy(LocalBuffer, sp + 1, ini_buffer_size, quote_mode::plain);
            section_room = std::strlen(LocalBuffer) + 1;
            if ((flags & 1) != 0 && callback(LocalBuffer, nullptr, nullptr, user_data) == 0)
                break;
            continue;
        }
        if (*sp == '\0' || *sp == ';' || *sp == '#')
            continue;
        char *ep = find_separator(sp);
        if (ep == nullptr)
            continue;
        *ep = '\0';
        trim_trailing_blanks(sp);
        save_strncpy(line, sp, static_cast<std::size_t>(line_room), quote_mode::plain);
        const std::size_t key_room = std::strlen(line) + 1;
        quote_mode quotes;
        char *value = clean_value(skipleading(ep + 1), &quotes);
        save_strncpy(line + key_room, value, static_cast<std::size_t>(line_room) - key_room,
                     quotes);
        if (callback(LocalBuffer, line, line + key_room, user_data) == 0)
            break;
    }
    std::fclose(fp);
    return 1;
}

QX_API int ini_browse(ini_browse_callback callback, void *user_data, const char *filename) {
    return ini_browse_int(callback, user_data, filename, 0);
}

QX_API int ini_browse_with_section_cb(ini_browse_callback callback, void *user_data,
                                      const char *filename) {
    return ini_browse_int(callback, user_data, filename, 1);
}

} // extern "C"
