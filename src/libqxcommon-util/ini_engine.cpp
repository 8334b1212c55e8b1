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
#include <string_view>
#include <strings.h>
#include <unistd.h>

#include "internal/guards.hpp"
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

// ---- the line syntax --------------------------------------------------------

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
const char *skiptrailing(const char *str, const char *base) noexcept {
    while (str > base && is_blank(str[-1]))
        --str;
    return str;
}

char *trim_trailing_blanks(char *str) noexcept {
    const std::size_t length = std::strlen(str);
    str[skiptrailing(str + length, str) - str] = '\0';
    return str;
}

// "=" wins over an earlier ":"; ":" counts only on lines without "=".
char *find_separator(char *line) noexcept {
    char *sep = std::strchr(line, '=');
    return sep != nullptr ? sep : std::strchr(line, ':');
}

// A name argument of the interface; NULL stands for the empty name.
std::string_view name_of(const char *name) noexcept {
    return name != nullptr ? std::string_view(name) : std::string_view();
}

// Names compare case-insensitively over equal lengths.
bool names_match(std::string_view name, std::string_view wanted) noexcept {
    return name.size() == wanted.size() &&
           (name.empty() || strncasecmp(name.data(), wanted.data(), name.size()) == 0);
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

enum class line_kind { section_header, key_value, comment, other };

// One line as the engine's syntax sees it; the pointers are into the line
// buffer, which the line's owner may cut at them.
struct ini_line {
    line_kind kind;
    char *start; // the first significant byte
    char *end;   // a header's first "]", a key line's separator, else nullptr

    // Any line that begins with "[" ends the keys of a section, whether it is
    // a header or not.
    bool opens_section() const noexcept { return *start == '['; }

    std::string_view section_name() const noexcept {
        return {start + 1, static_cast<std::size_t>(end - start - 1)};
    }

    // The key: the text before the separator without its trailing blanks.
    std::string_view key_before(const char *separator) const noexcept {
        return {start, static_cast<std::size_t>(skiptrailing(separator, start) - start)};
    }
    std::string_view key() const noexcept { return key_before(end); }

    // The separator of a line of any kind: unlike the readers, the writer
    // looks for its key on comment and header lines as well.
    char *any_separator() const noexcept {
        if (kind == line_kind::comment || kind == line_kind::section_header)
            return find_separator(start);
        return end;
    }
};

// The one classifier of every entry point. A header begins with "[" and holds
// a "]"; a comment begins with ";" or "#"; a key line is any other line with
// a separator. A line that begins with "[" but has no "]" is no header.
ini_line classify_line(char *text) noexcept {
    char *sp = skipleading(text);
    if (*sp == '[') {
        if (char *ep = std::strchr(sp, ']'); ep != nullptr)
            return {line_kind::section_header, sp, ep};
    } else if (*sp == ';' || *sp == '#') {
        return {line_kind::comment, sp, nullptr};
    }
    if (char *sep = find_separator(sp); sep != nullptr)
        return {line_kind::key_value, sp, sep};
    return {line_kind::other, sp, nullptr};
}

// ---- reading lines ----------------------------------------------------------

// The readers' lines: plain fgets into an area of the caller's buffer.
class stream_lines {
  public:
    stream_lines(FILE *fp, char *area, int room) noexcept : fp_(fp), area_(area), room_(room) {}

    bool next_line() noexcept { return std::fgets(area_, room_, fp_) != nullptr; }
    char *line() const noexcept { return area_; }
    int room() const noexcept { return room_; }
    // Lines from now on are read into another area.
    void read_into(char *area, int room) noexcept {
        area_ = area;
        room_ = room;
    }

  private:
    FILE *fp_;
    char *area_;
    int room_;
};

// Walks a file's lines as sections: where a section begins (its first header
// of a name, or the header at a position) and where its keys end (the next
// line that begins with "["). Lines come from the readers' plain reads or from
// the writer's counted ones, so that all entry points agree on both.
template <typename Lines> class section_cursor {
  public:
    explicit section_cursor(Lines &lines) noexcept : lines_(lines) {}

    // Reads and classifies the next line; false at the end of the file.
    bool next() noexcept {
        if (!lines_.next_line())
            return false;
        line_ = classify_line(lines_.line());
        return true;
    }
    const ini_line &line() const noexcept { return line_; }

    // Reads on to the first header named `name`, handing every line before
    // it to `passed`; false at the end of the file.
    template <typename Passed> bool seek_header(std::string_view name, Passed passed) noexcept {
        while (next()) {
            if (line_.kind == line_kind::section_header && names_match(line_.section_name(), name))
                return true;
            passed();
        }
        return false;
    }

    // The unnamed section begins at the first line, any other behind its
    // first header.
    bool enter(std::string_view name) noexcept {
        return name.empty() || seek_header(name, [] {});
    }

    // Reads on to the header at `index`, counted from 0.
    // Deliberate: a header with an empty name ends the count as not found.
    // So no section behind a "[]" can be reached by position.
    bool seek_header_at(int index) noexcept {
        int idx = -1;
        while (next()) {
            if (line_.kind != line_kind::section_header)
                continue;
            if (line_.section_name().empty())
                return false;
            if (++idx == index)
                return true;
        }
        return false;
    }

    // Reads on to the section's first key line whose key is `name`.
    bool seek_key(std::string_view name) noexcept {
        while (next_key_line()) {
            if (names_match(line_.key(), name))
                return true;
        }
        return false;
    }

    // Reads on to the section's key line at `index`, counted from 0.
    // Deliberate: a key line with an empty key ends the count as not found.
    bool seek_key_at(int index) noexcept {
        int idx = -1;
        while (next_key_line()) {
            if (line_.key().empty())
                return false;
            if (++idx == index)
                return true;
        }
        return false;
    }

  private:
    // The next key line of the section; comments and other lines are passed.
    bool next_key_line() noexcept {
        while (next() && !line_.opens_section()) {
            if (line_.kind == line_kind::key_value)
                return true;
        }
        return false;
    }

    Lines &lines_;
    ini_line line_{line_kind::other, nullptr, nullptr};
};

// Opens a stream whose buffer is the caller's, so stdio does not allocate one.
file_guard open_stream(const char *name, const char *mode,
                       char (&buffer)[stream_buffer_size]) noexcept {
    file_guard fp(std::fopen(name, mode));
    if (fp)
        std::setvbuf(fp.get(), buffer, _IOFBF, sizeof buffer);
    return fp;
}

// Runs one search on the named file; false when the file cannot be opened
// or the search finds nothing.
template <typename Search> bool search_file(const char *filename, Search search) noexcept {
    char stream_buffer[stream_buffer_size];
    file_guard fp = open_stream(filename, "r", stream_buffer);
    return fp && search(fp.get());
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
// double quote, ";" or "#", or ending with a space.
// Deliberate: leading blanks and trailing tabs get no quotes and are lost.
// They read back without them, as the readers clean every value.
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

bool getkeystring(FILE *fp, const char *Section, wanted_key wanted, char *Buffer,
                  int BufferSize) noexcept {
    const auto [Key, idxKey] = wanted;
    INI_ASSERT(Key != NULL || idxKey >= 0);
    char LocalBuffer[ini_buffer_size];
    stream_lines lines(fp, LocalBuffer, sizeof LocalBuffer);
    section_cursor cursor(lines);
    if (!cursor.enter(name_of(Section)))
        return false;
    if (idxKey.has_value()) {
        if (!cursor.seek_key_at(*idxKey))
            return false;
        *cursor.line().end = '\0';
        save_strncpy(Buffer, trim_trailing_blanks(cursor.line().start),
                     static_cast<std::size_t>(BufferSize), quote_mode::plain);
        return true;
    }
    if (!cursor.seek_key(name_of(Key)))
        return false;
    char *ep = cursor.line().end;
    INI_TEST_SEAM(ep);
    INI_ASSERT(*ep == '=' || *ep == ':');
    quote_mode quotes;
    char *value = clean_value(skipleading(ep + 1), &quotes);
    save_strncpy(Buffer, value, static_cast<std::size_t>(BufferSize), quotes);
    return true;
}

bool getkeystring(FILE *fp, section_at wanted, char *Buffer, int BufferSize) noexcept {
    char LocalBuffer[ini_buffer_size];
    stream_lines lines(fp, LocalBuffer, sizeof LocalBuffer);
    section_cursor cursor(lines);
    if (!cursor.seek_header_at(wanted.idxSection))
        return false;
    char *ep = cursor.line().end;
    INI_TEST_SEAM(ep);
    INI_ASSERT(*ep == ']');
    *ep = '\0';
    save_strncpy(Buffer, cursor.line().start + 1, static_cast<std::size_t>(BufferSize),
                 quote_mode::plain);
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
// A flush leaves the source at the mark, so the line just read is read again
// by the next read. The first failed read, seek or write ends the rewrite:
// from then on nothing more is read or written, and failed() tells the
// caller.
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

    // Copies every line from the current one on.
    void keep_the_rest() noexcept {
        while (next_line())
            keep_line();
        flush();
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

// One change of ini_puts: the key to set (Key and Value), the key to delete
// (Value NULL) or the section to delete (Key NULL).
struct change {
    const char *Section;
    const char *Key;
    const char *Value;

    bool setting() const noexcept { return Key != nullptr && Value != nullptr; }
};

// At the end of the file: the pending lines are written, then, when
// setting, the new lines on a line of their own.
void put_at_end(rewrite &rw, const change &ch, bool with_section) noexcept {
    const int ended_with_line_feed = rw.flush();
    if (!ch.setting())
        return;
    if (!ended_with_line_feed)
        rw.put_line_feed();
    if (with_section)
        rw.put_section_line(ch.Section);
    rw.put_key_line(ch.Key, ch.Value);
}

// Copies the lines before the section's header and deals with the header:
// kept when a key changes, dropped when the section goes. False when the
// file has no such section; it is then appended when setting, and the
// rewrite is complete.
bool seek_section_to_rewrite(section_cursor<rewrite> &cursor, rewrite &rw,
                             const change &ch) noexcept {
    if (!cursor.seek_header(name_of(ch.Section), [&rw] { rw.keep_line(); })) {
        put_at_end(rw, ch, true);
        return false;
    }
    if (ch.Key != nullptr) {
        rw.keep_line();
    } else {
        rw.flush();
        rw.drop_line_at_mark(); // the header of the deleted section
    }
    return true;
}

// Walks the section's lines up to the wanted key, the section's end or the
// end of the file, and makes the change there; the other lines of the
// section are kept, or dropped when the section goes (comments and blank
// lines too). True when lines are left to copy.
bool rewrite_section(section_cursor<rewrite> &cursor, rewrite &rw, const change &ch) noexcept {
    const std::string_view key = name_of(ch.Key);
    while (cursor.next()) {
        const ini_line &line = cursor.line();
        const bool opens_section = line.opens_section();
        // Deliberate: deleting a section (no key) matches a line that starts
        // with its separator, and keeps the lines after it.
        const char *separator = line.any_separator();
        const bool matches = separator != nullptr && names_match(line.key_before(separator), key);
        if (matches || opens_section) {
            // A new key goes behind the section's last line; a header is
            // copied with the rest, and so is a matched line that begins
            // with "[".
            rw.flush();
            if (ch.setting())
                rw.put_key_line(ch.Key, ch.Value);
            if (matches && !opens_section)
                rw.drop_line_at_mark();
            return true;
        }
        if (ch.Key == nullptr)
            rw.drop_line();
        else
            rw.keep_line();
    }
    put_at_end(rw, ch, false);
    return false;
}

// Copies the source into the temporary file with the one change asked for:
// find the section, then the key in it, then copy the rest.
void rewrite_file(rewrite &rw, const change &ch) noexcept {
    section_cursor cursor(rw);
    const bool unnamed = name_of(ch.Section).empty();
    if (!unnamed && !seek_section_to_rewrite(cursor, rw, ch))
        return;
    rw.flush();
    // Deliberate: deleting the unnamed part drops the file's first line
    // whatever it is, a header included.
    if (unnamed && ch.Key == nullptr)
        rw.drop_line_at_mark();
    if (rewrite_section(cursor, rw, ch))
        rw.keep_the_rest();
}

// No file to change: a new one gets the section and key lines. A file that
// did not exist before is not left behind half written.
int create_ini_file(const change &ch, const char *Filename, char *LocalBuffer) noexcept {
    char write_buffer[stream_buffer_size];
    FILE *wfp = open_stream(Filename, "w", write_buffer).release();
    if (wfp == nullptr)
        return 0;
    const bool written = write_section_line(wfp, ch.Section, LocalBuffer) &&
                         write_key_line(wfp, ch.Key, ch.Value, LocalBuffer);
    if (!close_written_stream(wfp) || !written) {
        ::unlink(Filename);
        return 0;
    }
    return 1;
}

enum class stored_value { same, different, unreadable };

// Whether the key already has the value, as read back (cleaned and
// dequoted); otherwise the source is back at its start.
stored_value compare_stored_value(FILE *rfp, const change &ch, char *LocalBuffer) noexcept {
    const bool found =
        getkeystring(rfp, ch.Section, wanted_key::named(ch.Key), LocalBuffer, ini_buffer_size);
    if (found && std::strcmp(LocalBuffer, ch.Value) == 0)
        return stored_value::same;
    if (std::ferror(rfp) != 0 || std::fseek(rfp, 0, SEEK_SET) != 0)
        return stored_value::unreadable;
    return stored_value::different;
}

// Writes the changed copy under the temporary name and puts it in place of
// the file; the file stays as it was when anything fails.
int replace_ini_file(file_guard &source, const change &ch, const char *Filename,
                     char *LocalBuffer) noexcept {
    char write_buffer[stream_buffer_size];
    char temp_name[ini_buffer_size];
    make_temp_name(temp_name, Filename);
    replacement_file temp;
    FILE *wfp = temp.create(temp_name, write_buffer, sizeof write_buffer);
    if (wfp == nullptr)
        return 0;
    rewrite rw(source.get(), wfp, LocalBuffer);
    rewrite_file(rw, ch);
    // Only a read stream: its close cannot lose anything.
    source.reset();
    if (rw.failed()) {
        temp.discard();
        return 0;
    }
    // The temporary file is removed again when it could not be completed;
    // otherwise it replaces the file, and whether that rename (or the
    // fallback of remove and rename) worked is not examined.
    return temp.commit(Filename) ? 1 : 0;
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

namespace {

// The line buffer holds the current section name with its zero at the front;
// lines are read into the rest of it, so after a long section name the lines
// are read in smaller pieces.
class browser {
  public:
    browser(ini_browse_callback callback, void *user_data, bool report_sections) noexcept
        : callback_(callback), user_data_(user_data), report_sections_(report_sections) {}

    void run(FILE *fp) noexcept {
        buffer_[0] = '\0';
        stream_lines lines(fp, buffer_ + 1, ini_buffer_size - 1);
        section_cursor cursor(lines);
        while (cursor.next()) {
            const ini_line &line = cursor.line();
            if (line.kind == line_kind::section_header) {
                if (!enter_section(line, lines))
                    return;
            } else if (line.kind == line_kind::key_value) {
                if (!report_key(line, lines.line(), lines.room()))
                    return;
            }
        }
    }

  private:
    // Moves the name to the front of the buffer; false to stop.
    bool enter_section(const ini_line &line, stream_lines &lines) noexcept {
        *line.end = '\0';
        save_strncpy(buffer_, line.start + 1, ini_buffer_size, quote_mode::plain);
        const std::size_t section_room = std::strlen(buffer_) + 1;
        lines.read_into(buffer_ + section_room, static_cast<int>(ini_buffer_size - section_room));
        return !report_sections_ || callback_(buffer_, nullptr, nullptr, user_data_) != 0;
    }

    // Moves key and value to the front of the line's area, the value behind
    // the key's zero in the room that is left; false to stop.
    bool report_key(const ini_line &line, char *area, int room) noexcept {
        *line.end = '\0';
        trim_trailing_blanks(line.start);
        save_strncpy(area, line.start, static_cast<std::size_t>(room), quote_mode::plain);
        const std::size_t key_room = std::strlen(area) + 1;
        quote_mode quotes;
        char *value = clean_value(skipleading(line.end + 1), &quotes);
        save_strncpy(area + key_room, value, static_cast<std::size_t>(room) - key_room, quotes);
        return callback_(buffer_, area, area + key_room, user_data_) != 0;
    }

    ini_browse_callback callback_;
    void *user_data_;
    bool report_sections_;
    char buffer_[ini_buffer_size];
};

} // namespace

extern "C" {

QX_API int ini_gets(const char *section, const char *key, const char *def_value, char *buffer,
                    int buffer_size, const char *filename) {
    if (buffer == nullptr || buffer_size <= 0 || key == nullptr)
        return 0;
    const bool found = search_file(filename, [&](FILE *fp) {
        return getkeystring(fp, section, wanted_key::named(key), buffer, buffer_size);
    });
    if (!found)
        save_strncpy(buffer, def_value, static_cast<std::size_t>(buffer_size), quote_mode::plain);
    return static_cast<int>(std::strlen(buffer));
}

QX_API long ini_getl(const char *section, const char *key, long def_value, const char *filename) {
    char text[64];
    const int length = ini_gets(section, key, "", text, sizeof text, filename);
    if (length == 0)
        return def_value;
    // Deliberate: "1x" is read as hexadecimal, like "0x1F"; "-0x10" is not.
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
    const bool found = search_file(filename, [&](FILE *fp) {
        return getkeystring(fp, section_at{index}, buffer, buffer_size);
    });
    if (!found)
        *buffer = '\0';
    return static_cast<int>(std::strlen(buffer));
}

QX_API int ini_getkey(const char *section, int index, char *buffer, int buffer_size,
                      const char *filename) {
    if (buffer == nullptr || buffer_size <= 0 || index < 0)
        return 0;
    const bool found = search_file(filename, [&](FILE *fp) {
        return getkeystring(fp, section, wanted_key::at(index), buffer, buffer_size);
    });
    if (!found)
        *buffer = '\0';
    return static_cast<int>(std::strlen(buffer));
}

QX_API int ini_browse_int(ini_browse_callback callback, void *user_data, const char *filename,
                          int flags) {
    if (callback == nullptr)
        return 0;
    char stream_buffer[stream_buffer_size];
    const file_guard fp = open_stream(filename, "r", stream_buffer);
    if (!fp)
        return 0;
    browser(callback, user_data, (flags & 1) != 0).run(fp.get());
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
    const change ch{section, key, value};
    char LocalBuffer[ini_buffer_size];
    char read_buffer[stream_buffer_size];
    file_guard source = open_stream(Filename, "r", read_buffer);
    if (!source) {
        if (!ch.setting())
            return 1; // nothing to delete
        return create_ini_file(ch, Filename, LocalBuffer);
    }
    if (ch.setting()) {
        switch (compare_stored_value(source.get(), ch, LocalBuffer)) {
        case stored_value::same:
            return 1; // the file is left untouched
        case stored_value::unreadable:
            return 0;
        case stored_value::different:
            break;
        }
    }
    return replace_ini_file(source, ch, Filename, LocalBuffer);
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
