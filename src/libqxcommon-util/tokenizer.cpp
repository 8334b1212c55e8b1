// Field scanners: strnsep reads, qx_strsepstr_x cuts in place and
// understands quotes and escapes; strswitch maps a word through a table.
#include "qxcommon-util/tokenizer.h"

#include <cstring>

namespace qx::detail {
namespace {

// True when c ends a field of strnsep: a delimiter, or the NUL that ends
// delims (so the end of the text always ends the field).
bool ends_scanned_field(char c, const char *delims) noexcept {
    return std::strchr(delims, c) != nullptr;
}

// Where the in-place splitter stands between two characters.
enum class quoting {
    plain,
    plain_escape,
    double_quoted,
    double_quoted_escape,
    single_quoted,
    single_quoted_escape,
};

// The in-place splitter over one field. `at` is the current character;
// removing a character shifts the rest of the text (its NUL included) one
// place to the left, so `at` then holds the next character.
class field_cutter {
  public:
    field_cutter(char *start, const char *delims) noexcept : at_(start), delims_(delims) {}

    // Runs to the delimiter that ends the field (returned, still in the
    // text) or to the end of the text (nullptr).
    char *run() noexcept {
        while (*at_ != '\0') {
            if (step())
                return at_;
        }
        return nullptr;
    }

  private:
    // One character in the current state; true when it ends the field.
    bool step() noexcept {
        const char c = *at_;
        switch (state_) {
        case quoting::plain:
            return step_plain(c);
        case quoting::plain_escape:
            keep_escaped(quoting::plain);
            return false;
        case quoting::double_quoted:
            step_quoted(c, '"', quoting::double_quoted_escape);
            return false;
        case quoting::double_quoted_escape:
            keep_escaped(quoting::double_quoted);
            return false;
        case quoting::single_quoted:
            step_quoted(c, '\'', quoting::single_quoted_escape);
            return false;
        case quoting::single_quoted_escape:
            keep_escaped(quoting::single_quoted);
            return false;
        }
        return false;
    }

    bool step_plain(char c) noexcept {
        if (c == '"' && position_ == 0) {
            open_quote(quoting::double_quoted);
        } else if (c == '\'' && position_ == 0) {
            open_quote(quoting::single_quoted);
        } else if (c == '\\') {
            start_escape(quoting::plain_escape);
        } else if (is_delimiter(c)) {
            return true;
        } else {
            pass_over();
        }
        return false;
    }

    // Deliberate: backslash escapes work inside single quotes as well as double ones.
    // Inside quotes the delimiters and the other kind of quote are text;
    // backslash escapes work in single quotes too, deliberately.
    void step_quoted(char c, char closing, quoting escape) noexcept {
        if (c == '\\')
            start_escape(escape);
        else if (c == closing)
            close_quote();
        else
            pass_over();
    }

    // A quote opens only as the field's very first character.
    void open_quote(quoting quoted) noexcept {
        remove_current();
        state_ = quoted;
    }

    void close_quote() noexcept {
        remove_current();
        state_ = quoting::plain;
    }

    void start_escape(quoting escape) noexcept {
        remove_current();
        state_ = escape;
    }

    // The escaped character stays whatever it is: delimiter, quote or
    // backslash.
    void keep_escaped(quoting back_to) noexcept {
        pass_over();
        state_ = back_to;
    }

    void pass_over() noexcept {
        ++at_;
        ++position_;
    }

    void remove_current() noexcept {
        std::memmove(at_, at_ + 1, std::strlen(at_ + 1) + 1);
        ++position_;
    }

    bool is_delimiter(char c) const noexcept {
        return delims_[0] != '\0' && std::strchr(delims_, c) != nullptr;
    }

    char *at_;
    const char *delims_;
    quoting state_ = quoting::plain;
    std::size_t position_ = 0;
};

// True when c is one more delimiter of a run that collapse swallows.
bool continues_delimiter_run(char c, const char *delims) noexcept {
    return c != '\0' && std::strchr(delims, c) != nullptr;
}

} // namespace
} // namespace qx::detail

extern "C" {

QX_API const char *strnsep(const char **cursor, const char *delims, size_t *len) {
    *len = 0;
    if (*cursor == nullptr || **cursor == '\0')
        return nullptr;
    const char *start = *cursor;
    while (!qx::detail::ends_scanned_field(**cursor, delims)) {
        ++*cursor;
        ++*len;
    }
    if (**cursor != '\0')
        ++*cursor;
    return start;
}

QX_API char *qx_strsepstr_x(char **cursor, const char *delims, int collapse) {
    char *start = *cursor;
    if (start == nullptr)
        return nullptr;
    char *end = qx::detail::field_cutter(start, delims).run();
    if (end == nullptr) {
        *cursor = nullptr;
        return start;
    }
    *end++ = '\0';
    if (collapse == 1) {
        while (qx::detail::continues_delimiter_run(*end, delims))
            *end++ = '\0';
    }
    *cursor = end;
    return start;
}

QX_API char *my_strsep(char **cursor, const char *delims) {
    return qx_strsepstr_x(cursor, delims, 0);
}

QX_API char *qx_strsepstr(char **cursor, const char *delims) {
    return qx_strsepstr_x(cursor, delims, 1);
}

QX_API intptr_t strswitch(const char *word, const qx_switch_entry *table) {
    for (const qx_switch_entry *row = table; row->name != nullptr; ++row) {
        if (std::strcmp(word, row->name) == 0)
            return row->value;
    }
    return 0;
}

} // extern "C"
