// The INI engine: line syntax, lookups, enumeration, browsing and the
// in-place writer.
//
// Every call opens the file, scans it from the first line and closes it
// before returning; there is no parsed tree and nothing survives a call. All
// working storage is on the stack: one 512-byte line buffer per call, and the
// buffers of the call's streams (given to stdio with setvbuf, so that stdio
// allocates nothing but the FILE records fopen itself needs). The writer
// keeps no lines in memory at all: it remembers where the not yet written
// lines start in the source (the mark) and how many bytes they hold (the
// pending count), and reads them a second time when they are written.
//
// A rewrite goes to a temporary file beside the INI file that replaces it in
// one rename, and only when every read, seek and write of the rewrite worked:
// otherwise the INI file stays exactly as it was.

// The assertions are part of the engine's behaviour: keep them in every build.
#undef NDEBUG
#include "qxcommon-util/ini.h"

#include <assert.h>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>

#include "internal/ini_engine.hpp"
#include "internal/replacement_file.hpp"

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
// The pending bytes of the writer must fit the line buffer with its zero.
constexpr int max_pending = ini_buffer_size - 1;

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

// Reads like fgets (at most size - 1 bytes, up to and including a line feed)
// but returns the number of bytes taken, 0 at the end of the file or on a
// read error. The writer counts what it reads this way, so that a NUL byte in
// a line neither loses the rest of the line nor upsets the accounting of
// pending bytes. fgets leaves the bytes behind its terminating NUL alone, so
// with the buffer filled with non-zero bytes first, the last NUL of the
// buffer is the terminator, whatever NUL bytes the line itself holds.
int read_line(char *buffer, int size, FILE *fp) noexcept {
    std::memset(buffer, '\n', static_cast<std::size_t>(size));
    if (std::fgets(buffer, size, fp) == nullptr) {
        buffer[0] = '\0';
        return 0;
    }
    int count = size - 1;
    while (buffer[count] != '\0')
        --count;
    return count;
}

// After a read that gave nothing: whether that was an error rather than the
// end of the file.
bool read_failed(FILE *fp) noexcept {
    return std::ferror(fp) != 0 || std::feof(fp) == 0;
}

// Composed lines go out with fputs; copied ones with fwrite.
bool write_text(FILE *fp, const char *text) noexcept {
    return std::fputs(text, fp) != EOF;
}

// A value that would not read back as written gets quotes: one holding a
// double quote, ";" or "#", or ending with a space. Leading blanks and
// trailing tabs are not protected and get lost on reading (deliberate).
bool check_enquote(const char *Value) noexcept {
    const std::size_t length = std::strlen(Value);
    return std::strpbrk(Value, "\";#") != nullptr || (length > 0 && Value[length - 1] == ' ');
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

// Seeks rfp back to *mark, reads the *size pending bytes again into buffer
// (each read limited to the room that is left) and writes them to wfp; then
// *mark stands behind them and nothing is pending. Reports whether the bytes
// written end with a line feed (0 when nothing was pending), or -1 when the
// seek, a read or the write failed.
int cache_flush(char *buffer, int *size, FILE *rfp, FILE *wfp, fpos_t *mark) noexcept {
    int pos = 0;
    // A failed seek must not go on reading from wherever the stream stands:
    // those would be the wrong bytes.
    if (std::fsetpos(rfp, mark) != 0)
        return -1;
    while (pos < *size) {
        const int count = read_line(buffer + pos, ini_buffer_size - pos, rfp);
        if (count == 0) {
            if (read_failed(rfp))
                return -1;
            break; // the file became shorter since it was read
        }
        pos += count;
        // More bytes than were counted: the file changed under the writer.
        INI_ASSERT(pos <= *size);
    }
    if (pos > 0 &&
        std::fwrite(buffer, 1, static_cast<std::size_t>(pos), wfp) != static_cast<std::size_t>(pos))
        return -1;
    if (std::fgetpos(rfp, mark) != 0)
        return -1;
    *size = 0;
    return pos > 0 && buffer[pos - 1] == '\n';
}

bool write_key_line(FILE *fp, const char *Key, const char *Value, char *LocalBuffer) noexcept {
    INI_ASSERT(Value != NULL);
    save_strncpy(LocalBuffer, Key, ini_buffer_size - 3, quote_mode::plain);
    std::size_t length = std::strlen(LocalBuffer);
    LocalBuffer[length++] = '=';
    save_strncpy(LocalBuffer + length, Value, ini_buffer_size - 2 - length,
                 check_enquote(Value) ? quote_mode::enquote : quote_mode::plain);
    length += std::strlen(LocalBuffer + length);
    LocalBuffer[length++] = '\n';
    LocalBuffer[length] = '\0';
    return write_text(fp, LocalBuffer);
}

namespace {

bool write_section_line(FILE *fp, const char *Section, char *LocalBuffer) noexcept {
    if (Section == nullptr || *Section == '\0')
        return true;
    LocalBuffer[0] = '[';
    save_strncpy(LocalBuffer + 1, Section, ini_buffer_size - 4, quote_mode::plain);
    std::size_t length = std::strlen(LocalBuffer);
    LocalBuffer[length++] = ']';
    LocalBuffer[length++] = '\n';
    LocalBuffer[length] = '\0';
    return write_text(fp, LocalBuffer);
}

// The file's name with its last byte replaced by "~": "app.ini" -> "app.in~".
void make_temp_name(char *LocalBuffer, const char *Filename) noexcept {
    save_strncpy(LocalBuffer, Filename, ini_buffer_size, quote_mode::plain);
    const std::size_t length = std::strlen(LocalBuffer);
    if (length > 0)
        LocalBuffer[length - 1] = '~';
}

// One rewrite of the source into the temporary file. Invariant: the bytes
// between the mark and the start of the line just read are the pending ones.
// The first failed read, seek or write ends the rewrite: from then on
// nothing more is read or written, and failed() tells the caller.
class rewrite {
  public:
    rewrite(FILE *rfp, FILE *wfp, char *buffer) noexcept : rfp_(rfp), wfp_(wfp), buffer_(buffer) {
        failed_ = std::fgetpos(rfp_, &mark_) != 0;
    }

    char *line() const noexcept { return buffer_; }
    bool failed() const noexcept { return failed_; }

    // False at the end of the file, and after a failure.
    bool next_line() noexcept {
        if (failed_)
            return false;
        line_length_ = read_line(buffer_, ini_buffer_size, rfp_);
        if (line_length_ == 0 && read_failed(rfp_))
            failed_ = true;
        return line_length_ > 0;
    }

    // Reports whether the bytes written ended with a line feed.
    int flush() noexcept {
        if (failed_)
            return 0;
        const int ended_with_line_feed = cache_flush(buffer_, &pending_, rfp_, wfp_, &mark_);
        if (ended_with_line_feed < 0) {
            failed_ = true;
            return 0;
        }
        return ended_with_line_feed;
    }

    // Keeps the line just read: it joins the pending bytes, which are written
    // first when they would no longer fit the line buffer.
    void keep_line() noexcept {
        if (pending_ + line_length_ > max_pending) {
            flush();
            next_line(); // the flush used the buffer
        }
        pending_ += line_length_;
    }

    // Drops the line just read; nothing may be pending.
    void drop_line() noexcept {
        if (!failed_ && std::fgetpos(rfp_, &mark_) != 0)
            failed_ = true;
    }

    // Drops the line that starts at the mark (after a flush).
    void drop_line_at_mark() noexcept {
        next_line();
        drop_line();
    }

    // The composed lines; nothing is written once something has failed.
    void put_line_feed() noexcept { failed_ = failed_ || !write_text(wfp_, "\n"); }
    void put_section_line(const char *Section) noexcept {
        failed_ = failed_ || !write_section_line(wfp_, Section, buffer_);
    }
    void put_key_line(const char *Key, const char *Value) noexcept {
        failed_ = failed_ || !write_key_line(wfp_, Key, Value, buffer_);
    }

  private:
    FILE *rfp_;
    FILE *wfp_;
    char *buffer_;
    fpos_t mark_{};
    int pending_ = 0;
    int line_length_ = 0;
    bool failed_ = false;
};

// Copies the source into the temporary file with the one change asked for:
// find the section, then the key in it, then copy the rest.
void rewrite_file(rewrite &rw, const char *Section, const char *Key, const char *Value) noexcept {
    const bool setting = Key != nullptr && Value != nullptr;
    const std::size_t section_length = Section != nullptr ? std::strlen(Section) : 0;
    const std::size_t key_length = Key != nullptr ? std::strlen(Key) : 0;

    if (section_length > 0) {
        for (;;) {
            if (!rw.next_line()) {
                // No such section: append it, on a line of its own.
                const int ended_with_line_feed = rw.flush();
                if (setting) {
                    if (!ended_with_line_feed)
                        rw.put_line_feed();
                    rw.put_section_line(Section);
                    rw.put_key_line(Key, Value);
                }
                return;
            }
            char *sp = skipleading(rw.line());
            const char *ep = std::strchr(sp, ']');
            if (*sp == '[' && ep != nullptr &&
                names_match(sp + 1, static_cast<std::size_t>(ep - sp - 1), Section,
                            section_length)) {
                if (Key != nullptr) {
                    rw.keep_line();
                } else {
                    rw.flush();
                    rw.drop_line_at_mark(); // the header of the deleted section
                }
                break;
            }
            rw.keep_line();
        }
    }

    rw.flush();
    // Deliberate: deleting the unnamed part drops the file's first line
    // whatever it is, a header included.
    if (section_length == 0 && Key == nullptr)
        rw.drop_line_at_mark();

    for (;;) {
        if (!rw.next_line()) {
            const int ended_with_line_feed = rw.flush();
            if (setting) {
                if (!ended_with_line_feed)
                    rw.put_line_feed();
                rw.put_key_line(Key, Value);
            }
            return;
        }
        char *sp = skipleading(rw.line());
        const bool starts_header = *sp == '[';
        char *ep = find_separator(sp);
        // Deliberate: deleting a section (no key) matches a line that starts
        // with its separator, and keeps the lines after it.
        if (ep != nullptr &&
            names_match(sp, static_cast<std::size_t>(skiptrailing(ep, sp) - sp), Key, key_length)) {
            rw.flush();
            if (setting)
                rw.put_key_line(Key, Value);
            if (!starts_header)
                rw.drop_line_at_mark();
            break; // a kept line is copied with the rest
        }
        if (starts_header) {
            // The section ends: a new key goes behind its last line. The
            // header is copied with the rest.
            rw.flush();
            if (setting)
                rw.put_key_line(Key, Value);
            break;
        }
        if (Key == nullptr)
            rw.drop_line(); // comments and blank lines of the section too
        else
            rw.keep_line();
    }

    while (rw.next_line())
        rw.keep_line();
    rw.flush();
}

} // namespace

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

QX_API int ini_puts(const char *section, const char *key, const char *value, const char *Filename) {
    INI_ASSERT(Filename != NULL);
    char LocalBuffer[ini_buffer_size];
    char read_buffer[stream_buffer_size];
    char write_buffer[stream_buffer_size];

    FILE *rfp = open_stream(Filename, "r", read_buffer);
    if (rfp == nullptr) {
        if (key == nullptr || value == nullptr)
            return 1; // nothing to delete
        FILE *wfp = open_stream(Filename, "w", write_buffer);
        if (wfp == nullptr)
            return 0;
        const bool written = write_section_line(wfp, section, LocalBuffer) &&
                             write_key_line(wfp, key, value, LocalBuffer);
        // A file that did not exist before is not left behind half written.
        if (!close_written_stream(wfp) || !written) {
            ::unlink(Filename);
            return 0;
        }
        return 1;
    }

    if (key != nullptr && value != nullptr) {
        // The same value as read back: leave the file untouched.
        const bool found = getkeystring(rfp, section, key, -1, -1, LocalBuffer, sizeof LocalBuffer);
        if (found && std::strcmp(LocalBuffer, value) == 0) {
            std::fclose(rfp);
            return 1;
        }
        if (std::ferror(rfp) != 0 || std::fseek(rfp, 0, SEEK_SET) != 0) {
            std::fclose(rfp);
            return 0;
        }
    }

    char temp_name[ini_buffer_size];
    make_temp_name(temp_name, Filename);
    replacement_file temp;
    FILE *wfp = temp.create(temp_name, write_buffer, sizeof write_buffer);
    if (wfp == nullptr) {
        std::fclose(rfp);
        return 0;
    }
    rewrite rw(rfp, wfp, LocalBuffer);
    rewrite_file(rw, section, key, value);
    const bool copied = !rw.failed();
    // Only a read stream: its close cannot lose anything.
    std::fclose(rfp);
    if (!copied) {
        temp.discard();
        return 0;
    }
    // The temporary file is removed again when it could not be completed;
    // otherwise it replaces the file, and whether that rename (or the
    // fallback of remove and rename) worked is not examined.
    return temp.commit(Filename) ? 1 : 0;
}

QX_API int ini_putl(const char *section, const char *key, long value, const char *filename) {
    char text[32];
    int length = 0;
    long rest = value;
    // Digits from the least significant end; a negative remainder is turned
    // into its digit by subtracting it from '0', so LONG_MIN needs no negation.
    do {
        const long digit = rest % 10;
        text[length++] = static_cast<char>(digit < 0 ? '0' - digit : '0' + digit);
        rest /= 10;
    } while (rest != 0);
    if (value < 0)
        text[length++] = '-';
    text[length] = '\0';
    for (int i = 0, j = length - 1; i < j; ++i, --j) {
        const char c = text[i];
        text[i] = text[j];
        text[j] = c;
    }
    return ini_puts(section, key, text, filename);
}

QX_API int ini_putf(const char *section, const char *key, float value, const char *filename) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    return ini_puts(section, key, text, filename);
}

} // extern "C"
