// jproc: a compiled pattern walked over a json-parser document, one
// combination of array positions per step.
#include <qxcommon-util/jproc.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal/guards.hpp"

namespace qx::detail {
namespace {

// ---- The pattern tree -------------------------------------------------------

void free_pattern(jproc_pattern *node) noexcept;

void free_members(jproc_member *member) noexcept {
    while (member != nullptr) {
        jproc_member *next = member->next;
        std::free(member->name);
        free_pattern(member->pattern);
        std::free(member);
        member = next;
    }
}

void free_pattern(jproc_pattern *node) noexcept {
    if (node == nullptr)
        return;
    switch (node->kind) {
    case JPROC_PATTERN_OBJECT:
        free_members(node->u.members);
        break;
    case JPROC_PATTERN_ARRAY:
        if (node->u.iterator != nullptr)
            free_pattern(node->u.iterator->pattern);
        std::free(node->u.iterator);
        break;
    default:
        break;
    }
    std::free(node);
}

jproc_pattern *new_node(int kind) noexcept {
    auto *node = static_cast<jproc_pattern *>(std::calloc(1, sizeof(jproc_pattern)));
    if (node != nullptr)
        node->kind = kind;
    return node;
}

// Whether every placeholder left in the tree has a slot below `count`.
bool placeholders_fit(const jproc_pattern *node, int count) noexcept {
    if (node == nullptr)
        return true;
    switch (node->kind) {
    case JPROC_PATTERN_PLACEHOLDER:
        return node->u.index < count;
    case JPROC_PATTERN_ARRAY:
        return placeholders_fit(node->u.iterator->pattern, count);
    case JPROC_PATTERN_OBJECT:
        for (const jproc_member *m = node->u.members; m != nullptr; m = m->next)
            if (!placeholders_fit(m->pattern, count))
                return false;
        return true;
    default:
        return true;
    }
}

void rewind_iterators(jproc_pattern *node) noexcept {
    if (node == nullptr)
        return;
    if (node->kind == JPROC_PATTERN_ARRAY) {
        node->u.iterator->index = 0;
        rewind_iterators(node->u.iterator->pattern);
    } else if (node->kind == JPROC_PATTERN_OBJECT) {
        for (jproc_member *m = node->u.members; m != nullptr; m = m->next)
            rewind_iterators(m->pattern);
    }
}

// ---- Compiling --------------------------------------------------------------

// A recursive descent over the pattern text with one shared cursor. Each form
// frees what it built when it fails. `fatal` marks failures that no tolerated
// form may absorb: memory ran out, or a slot number does not fit an int.
class compiler {
  public:
    explicit compiler(std::string_view text) noexcept : rest_(text) {}

    jproc_pattern *pattern() noexcept {
        skip_spaces();
        if (rest_.empty())
            return nullptr;
        switch (rest_[0]) {
        case '?':
            return placeholder();
        case '[':
            return array();
        case '{':
            return object();
        default:
            return nullptr;
        }
    }

    int count() const noexcept { return count_; }

  private:
    static constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

    bool at(char c) const noexcept { return !rest_.empty() && rest_[0] == c; }
    bool accept(char c) noexcept {
        if (!at(c))
            return false;
        rest_.remove_prefix(1);
        return true;
    }
    void skip_spaces() noexcept {
        while (at(' '))
            rest_.remove_prefix(1);
    }
    jproc_pattern *fail_fatally() noexcept {
        fatal_ = true;
        return nullptr;
    }

    // Deliberate: "?N" sets the slot count to N + 1, so a later smaller N lowers it.
    // "?" takes the next number; "?N" takes N and sets (not raises) the
    // count to N + 1, so a later smaller N lowers it. That is deliberate;
    // jproc_prepare rejects the patterns where it would strand a slot.
    jproc_pattern *placeholder() noexcept {
        rest_.remove_prefix(1);
        int index;
        if (!rest_.empty() && is_digit(rest_[0])) {
            long long number = 0;
            while (!rest_.empty() && is_digit(rest_[0])) {
                number = number * 10 + (rest_[0] - '0');
                if (number > INT_MAX - 1)
                    return fail_fatally();
                rest_.remove_prefix(1);
            }
            index = static_cast<int>(number);
            count_ = index + 1;
        } else {
            if (count_ == INT_MAX)
                return fail_fatally();
            index = count_++;
        }
        jproc_pattern *node = new_node(JPROC_PATTERN_PLACEHOLDER);
        if (node == nullptr)
            return fail_fatally();
        node->u.index = index;
        return node;
    }

    jproc_pattern *array() noexcept {
        rest_.remove_prefix(1);
        const std::string_view inside = rest_;
        jproc_pattern *element = pattern();
        if (element == nullptr) {
            if (fatal_)
                return nullptr;
            // Tolerated: "[ ]" is an array pattern without an element pattern.
            rest_ = inside;
            skip_spaces();
            if (!accept(']'))
                return nullptr;
        } else {
            skip_spaces();
            if (!accept(']')) {
                free_pattern(element);
                return nullptr;
            }
        }
        unique_malloc<jproc_pattern> node(new_node(JPROC_PATTERN_ARRAY));
        auto *iterator = static_cast<jproc_iterator *>(std::calloc(1, sizeof(jproc_iterator)));
        if (node == nullptr || iterator == nullptr) {
            std::free(iterator);
            free_pattern(element);
            return fail_fatally();
        }
        iterator->pattern = element;
        node->u.iterator = iterator;
        return node.release();
    }

    // A name in single quotes, without escapes; NULL when unterminated or
    // out of memory.
    char *quoted_name() noexcept {
        rest_.remove_prefix(1);
        const std::size_t end = rest_.find('\'');
        if (end == std::string_view::npos)
            return nullptr;
        auto *name = static_cast<char *>(std::malloc(end + 1));
        if (name == nullptr) {
            fatal_ = true;
            return nullptr;
        }
        std::memcpy(name, rest_.data(), end);
        name[end] = '\0';
        rest_.remove_prefix(end + 1);
        return name;
    }

    jproc_pattern *object() noexcept {
        rest_.remove_prefix(1);
        skip_spaces();
        jproc_member *members = nullptr;
        jproc_member **tail = &members;
        auto built = scope_exit([&members] { free_members(members); });
        for (;;) {
            if (!at('\''))
                return nullptr;
            char *name = quoted_name();
            if (name == nullptr)
                return nullptr;
            auto *member = static_cast<jproc_member *>(std::calloc(1, sizeof(jproc_member)));
            if (member == nullptr) {
                std::free(name);
                return fail_fatally();
            }
            member->name = name;
            *tail = member;
            tail = &member->next;

            skip_spaces();
            if (!accept(':'))
                return nullptr;
            const std::string_view value_start = rest_;
            member->pattern = pattern();
            if (member->pattern == nullptr) {
                if (fatal_)
                    return nullptr;
                // Tolerated: the object ends here with this member keeping
                // no pattern; enclosing forms go on from the member's value.
                rest_ = value_start;
                break;
            }
            while (!rest_.empty() && rest_[0] != ',' && rest_[0] != '}')
                rest_.remove_prefix(1);
            if (rest_.empty())
                return nullptr;
            if (accept('}'))
                break;
            accept(',');
            skip_spaces();
        }
        jproc_pattern *node = new_node(JPROC_PATTERN_OBJECT);
        if (node == nullptr)
            return fail_fatally();
        built.dismiss();
        node->u.members = members;
        return node;
    }

    std::string_view rest_;
    int count_ = 0;
    bool fatal_ = false;
};

// ---- Matching and stepping --------------------------------------------------

const json_object_entry *find_entry(const json_value *object, const char *name) noexcept {
    const std::string_view wanted(name);
    for (unsigned int i = 0; i < object->u.object.length; ++i) {
        const json_object_entry &entry = object->u.object.values[i];
        if (std::string_view(entry.name, entry.name_length) == wanted)
            return &entry;
    }
    return nullptr;
}

void match(jproc *state, jproc_pattern *node, json_value *value) noexcept {
    if (node == nullptr || value == nullptr)
        return;
    switch (node->kind) {
    case JPROC_PATTERN_PLACEHOLDER:
        state->args[node->u.index] = value;
        break;
    case JPROC_PATTERN_ARRAY: {
        jproc_iterator *iterator = node->u.iterator;
        if (value->type != json_array || iterator->index >= value->u.array.length)
            return;
        iterator->array = value;
        iterator->next = state->iterators;
        state->iterators = iterator;
        match(state, iterator->pattern, value->u.array.values[iterator->index]);
        break;
    }
    case JPROC_PATTERN_OBJECT:
        if (value->type != json_object || value->u.object.length == 0)
            return;
        for (jproc_member *m = node->u.members; m != nullptr; m = m->next) {
            if (m->pattern == nullptr)
                continue;
            if (const json_object_entry *entry = find_entry(value, m->name))
                match(state, m->pattern, entry->value);
        }
        break;
    default:
        break;
    }
}

void clear_slots(jproc *state) noexcept {
    if (state->args != nullptr)
        std::memset(state->args, 0, sizeof(json_value *) * static_cast<std::size_t>(state->argc));
}

void drop_owned_document(jproc *state) noexcept {
    if (state->document != nullptr && (state->flags & JPROC_FLAG_BORROWED) == 0)
        json_value_free(state->document);
    state->document = nullptr;
}

int install_parsed(jproc *state, const char *text, std::size_t length) noexcept {
    drop_owned_document(state);
    state->document = json_parse(text, length);
    state->flags &= ~JPROC_FLAG_BORROWED;
    return state->document != nullptr ? 0 : -1;
}

json_value *slot(jproc *state, int index) noexcept {
    if (state == nullptr || index < 0 || index >= state->argc)
        return nullptr;
    return state->args[index];
}

// The elements of an array slot whose elements all have type `Type`, as a
// new NULL-terminated array of what `pick` gives for each.
template <json_type Type, typename Entry, typename Pick>
Entry **collect_array(jproc *state, int index, unsigned int *count, Pick pick) noexcept {
    json_value *value = slot(state, index);
    if (value == nullptr || value->type != json_array)
        return nullptr;
    const unsigned int length = value->u.array.length;
    for (unsigned int i = 0; i < length; ++i)
        if (value->u.array.values[i]->type != Type)
            return nullptr;
    auto *entries = static_cast<Entry **>(std::malloc((std::size_t{length} + 1) * sizeof(Entry *)));
    if (entries == nullptr)
        return nullptr;
    for (unsigned int i = 0; i < length; ++i)
        entries[i] = pick(value->u.array.values[i]);
    entries[length] = nullptr;
    if (count != nullptr)
        *count = length;
    return entries;
}

} // namespace
} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API jproc *jproc_prepare(const char *pattern) {
    if (pattern == nullptr)
        return nullptr;
    unique_malloc<jproc> state(static_cast<jproc *>(std::calloc(1, sizeof(jproc))));
    if (state == nullptr)
        return nullptr;
    compiler parse{std::string_view(pattern)};
    state->root = parse.pattern();
    if (state->root == nullptr)
        return nullptr;
    auto pattern_guard = scope_exit([&state] { free_pattern(state->root); });
    state->argc = parse.count();
    if (!placeholders_fit(state->root, state->argc))
        return nullptr;
    if (state->argc != 0) {
        state->args = static_cast<json_value **>(
            std::calloc(static_cast<std::size_t>(state->argc), sizeof(json_value *)));
        if (state->args == nullptr)
            return nullptr;
    }
    pattern_guard.dismiss();
    return state.release();
}

QX_API void jproc_free(jproc *state) {
    if (state == nullptr)
        return;
    free_pattern(state->root);
    drop_owned_document(state);
    std::free(state->args);
    std::free(state);
}

QX_API void jproc_reset(jproc *state) {
    if (state == nullptr)
        return;
    clear_slots(state);
    state->done = 0;
    rewind_iterators(state->root);
    state->iterators = nullptr;
}

QX_API int jproc_open_json(jproc *state, json_value *root) {
    if (state == nullptr)
        return -1;
    jproc_reset(state);
    if (root == nullptr)
        return -1;
    // Handing back the state's own tree must not free it under the caller.
    if (root == state->document)
        return 0;
    drop_owned_document(state);
    state->document = root;
    state->flags |= JPROC_FLAG_BORROWED;
    return 0;
}

QX_API int jproc_open_mem(jproc *state, const char *text, int length) {
    if (state == nullptr)
        return -1;
    jproc_reset(state);
    if (text == nullptr) {
        drop_owned_document(state);
        state->flags &= ~JPROC_FLAG_BORROWED;
        return -1;
    }
    const std::size_t size = length < 0 ? std::strlen(text) : static_cast<std::size_t>(length);
    return install_parsed(state, text, size);
}

QX_API int jproc_open_file(jproc *state, const char *path) {
    if (state == nullptr || path == nullptr)
        return -1;
    jproc_reset(state);
    fd_guard fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd)
        return -1;
    struct stat info;
    if (::fstat(fd.get(), &info) != 0)
        return -1;
    const auto size = static_cast<std::size_t>(info.st_size);
    void *mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (mapped == MAP_FAILED) {
        fd.reset(); // keeps errno for the message
        std::perror("mmap");
        return -1;
    }
    const int result = install_parsed(state, static_cast<const char *>(mapped), size);
    {
        errno_keeper keep;
        ::munmap(mapped, size);
    }
    return result;
}

QX_API int jproc_step(jproc *state) {
    if (state == nullptr || state->done)
        return 0;
    clear_slots(state);
    state->iterators = nullptr;
    match(state, state->root, state->document);
    // An odometer: the most recently reached iterator (the deepest, and among
    // siblings the last in pattern order) turns first.
    for (jproc_iterator *it = state->iterators; it != nullptr; it = it->next) {
        if (++it->index < it->array->u.array.length)
            return 1;
        it->index = 0;
    }
    state->done = 1;
    return 1;
}

QX_API int jproc_arguments(jproc *state) {
    return state != nullptr ? state->argc : 0;
}

QX_API json_value *jproc_get_json(jproc *state, int index) {
    return slot(state, index);
}

QX_API int jproc_get_type(jproc *state, int index) {
    const json_value *value = slot(state, index);
    return value != nullptr ? static_cast<int>(value->type) : 0;
}

QX_API int jproc_is_integer(jproc *state, int index) {
    return jproc_get_type(state, index) == json_integer ? 1 : 0;
}

QX_API int jproc_is_string(jproc *state, int index) {
    return jproc_get_type(state, index) == json_string ? 1 : 0;
}

QX_API long jproc_get_integer(jproc *state, int index) {
    const json_value *value = slot(state, index);
    if (value == nullptr || value->type != json_integer)
        return -1;
    // Deliberate: only the low 32 bits of the integer, as a signed int; callers rely on it.
    // Only the low 32 bits, as a signed int: deliberate, callers rely on it.
    return static_cast<long>(
        static_cast<std::int32_t>(static_cast<std::uint32_t>(value->u.integer)));
}

QX_API char *jproc_get_string(jproc *state, int index) {
    json_value *value = slot(state, index);
    if (value == nullptr || value->type != json_string)
        return nullptr;
    return value->u.string.ptr;
}

QX_API char **jproc_get_string_array(jproc *state, int index, unsigned int *count) {
    return collect_array<json_string, char>(state, index, count,
                                            [](json_value *v) noexcept { return v->u.string.ptr; });
}

QX_API json_int_t **jproc_get_int_array(jproc *state, int index, unsigned int *count) {
    return collect_array<json_integer, json_int_t>(
        state, index, count, [](json_value *v) noexcept { return &v->u.integer; });
}

} // extern "C"
