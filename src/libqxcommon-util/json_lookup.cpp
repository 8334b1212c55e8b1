// Depth-first lookups by member name in a json-parser tree.
#include <qxcommon-util/json_lookup.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace qx::detail {
namespace {

// Deliberate: the first match in document order wins, at any depth; callers rely on it.
// Pre-order: an entry's name is compared before its value is searched, and
// an earlier entry's whole subtree before the next entry. Callers rely on
// that order when a name occurs at several depths.
json_value *find_by_name(json_value *value, const char *name) noexcept {
    switch (value->type) {
    case json_object:
        for (unsigned int i = 0; i < value->u.object.length; ++i) {
            const json_object_entry &entry = value->u.object.values[i];
            if (std::strcmp(entry.name, name) == 0)
                return entry.value;
            if (json_value *found = find_by_name(entry.value, name))
                return found;
        }
        return nullptr;
    case json_array:
        for (unsigned int i = 0; i < value->u.array.length; ++i)
            if (json_value *found = find_by_name(value->u.array.values[i], name))
                return found;
        return nullptr;
    default:
        return nullptr;
    }
}

// Each name is searched below the previous result; the walk stops at the
// first miss without reading the remaining names.
json_value *follow_path(json_value *value, va_list names) noexcept {
    while (const char *name = va_arg(names, const char *)) {
        if (value == nullptr)
            return nullptr;
        value = find_by_name(value, name);
    }
    return value;
}

char *string_text(json_value *value) noexcept {
    return value != nullptr && value->type == json_string ? value->u.string.ptr : nullptr;
}

} // namespace
} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API json_value *json_get_value_by_name(json_value *value, const char *name) {
    if (value == nullptr || name == nullptr)
        return nullptr;
    return find_by_name(value, name);
}

QX_API json_value *json_get_value_by_name_ex(json_value *value, ...) {
    va_list names;
    va_start(names, value);
    json_value *found = follow_path(value, names);
    va_end(names);
    return found;
}

QX_API char *json_get_string_by_name(json_value *value, const char *name) {
    return string_text(json_get_value_by_name(value, name));
}

QX_API char *json_get_string_by_name_ex(json_value *value, ...) {
    va_list names;
    va_start(names, value);
    json_value *found = follow_path(value, names);
    va_end(names);
    return string_text(found);
}

QX_API int json_get_int_by_name(json_value *value, const char *name, int *result) {
    json_value *found = json_get_value_by_name(value, name);
    if (found == nullptr || result == nullptr)
        return -1;
    switch (found->type) {
    case json_integer:
        *result = static_cast<std::int32_t>(static_cast<std::uint32_t>(found->u.integer));
        return 0;
    case json_string:
        // Deliberate: a string that is not a number stores 0 and succeeds.
        // Deliberately lenient: text that is not a number gives 0.
        *result = static_cast<int>(std::strtol(found->u.string.ptr, nullptr, 10));
        return 0;
    default:
        return -1;
    }
}

} // extern "C"
