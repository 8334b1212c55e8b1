// The json_get_* helpers on arbitrary documents with names from the input,
// against a reference of their depth-first search (a member's name before
// its value's insides, document order) and of the integer reading.
// Input: up to three names, each ended by a NUL byte, then the document.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <json-parser/json.h>

#include "fuzz_support.hpp"
#include "qxcommon-util/json_lookup.h"

using qx_fuzz::check;

namespace {

json_value *ref_find(json_value *v, const char *name) {
    if (v->type == json_object) {
        for (unsigned i = 0; i < v->u.object.length; ++i) {
            json_object_entry &e = v->u.object.values[i];
            if (std::strcmp(e.name, name) == 0)
                return e.value;
            if (json_value *hit = ref_find(e.value, name))
                return hit;
        }
    } else if (v->type == json_array) {
        for (unsigned i = 0; i < v->u.array.length; ++i)
            if (json_value *hit = ref_find(v->u.array.values[i], name))
                return hit;
    }
    return nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::vector<std::string> names;
    std::size_t pos = 0;
    while (names.size() < 3) {
        const std::size_t n = strnlen(reinterpret_cast<const char *>(data) + pos, size - pos);
        if (pos + n >= size)
            break;
        names.emplace_back(reinterpret_cast<const char *>(data) + pos, n);
        pos += n + 1;
    }
    if (names.empty())
        return 0;
    json_value *root = json_parse(reinterpret_cast<const char *>(data) + pos, size - pos);
    if (root == nullptr)
        return 0;

    for (const std::string &name : names) {
        json_value *want = ref_find(root, name.c_str());
        check(json_get_value_by_name(root, name.c_str()) == want, "json_get_value_by_name");
        check(json_get_string_by_name(root, name.c_str()) ==
                  (want != nullptr && want->type == json_string ? want->u.string.ptr : nullptr),
              "json_get_string_by_name");
        int got = 0x5A5A5A5A;
        const int r = json_get_int_by_name(root, name.c_str(), &got);
        if (want != nullptr && want->type == json_integer) {
            check(r == 0 && got == static_cast<int>(static_cast<std::uint32_t>(want->u.integer)),
                  "json_get_int_by_name of an integer");
        } else if (want != nullptr && want->type == json_string) {
            check(r == 0 && got == static_cast<int>(std::strtol(want->u.string.ptr, nullptr, 10)),
                  "json_get_int_by_name of a string");
        } else {
            check(r == -1 && got == 0x5A5A5A5A, "json_get_int_by_name of anything else");
        }
    }

    // Paths: each name searched below the previous result.
    json_value *want = root;
    for (const std::string &name : names)
        if (want != nullptr)
            want = ref_find(want, name.c_str());
    const char *a = names[0].c_str();
    const char *b = names.size() > 1 ? names[1].c_str() : nullptr;
    const char *c = names.size() > 2 ? names[2].c_str() : nullptr;
    check(json_get_value_by_name_ex(root, a, b, c, static_cast<char *>(nullptr)) == want,
          "json_get_value_by_name_ex");
    check(json_get_string_by_name_ex(root, a, b, c, static_cast<char *>(nullptr)) ==
              (want != nullptr && want->type == json_string ? want->u.string.ptr : nullptr),
          "json_get_string_by_name_ex");
    check(json_get_value_by_name_ex(root, static_cast<char *>(nullptr)) == root,
          "empty path gives the value itself");
    json_value_free(root);
    return 0;
}
