// jproc_open_mem, jproc_step and every getter on arbitrary documents with
// an arbitrary pattern. Oracles: the getters agree with the json_value each
// slot holds (type, integer narrowed to its low 32 bits, string text, the
// string and integer arrays entry by entry); a walk ends; after a reset the
// first combination comes again. A document that json-parser rejects must
// be rejected by jproc_open_mem too.
// Input: the pattern up to the first NUL byte, then the document.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <json-parser/json.h>

#include "fuzz_support.hpp"
#include "qxcommon-util/jproc.h"

using qx_fuzz::check;

namespace {

void check_slot(jproc *state, int i) {
    json_value *v = jproc_get_json(state, i);
    const int type = jproc_get_type(state, i);
    check(type == (v != nullptr ? static_cast<int>(v->type) : 0), "jproc_get_type");
    check(jproc_is_integer(state, i) == (v != nullptr && v->type == json_integer),
          "jproc_is_integer");
    check(jproc_is_string(state, i) == (v != nullptr && v->type == json_string), "jproc_is_string");
    const long integer = jproc_get_integer(state, i);
    if (v != nullptr && v->type == json_integer)
        check(integer == static_cast<long>(static_cast<std::int32_t>(
                             static_cast<std::uint32_t>(v->u.integer & 0xFFFFFFFF))),
              "jproc_get_integer is not the low 32 bits");
    else
        check(integer == -1, "jproc_get_integer of a non-integer");
    const char *s = jproc_get_string(state, i);
    check(s == (v != nullptr && v->type == json_string ? v->u.string.ptr : nullptr),
          "jproc_get_string");

    bool all_strings = v != nullptr && v->type == json_array;
    bool all_integers = all_strings;
    if (v != nullptr && v->type == json_array)
        for (unsigned k = 0; k < v->u.array.length; ++k) {
            all_strings = all_strings && v->u.array.values[k]->type == json_string;
            all_integers = all_integers && v->u.array.values[k]->type == json_integer;
        }
    unsigned count = 12345;
    char **strings = jproc_get_string_array(state, i, &count);
    check((strings != nullptr) == all_strings, "jproc_get_string_array result");
    if (strings != nullptr) {
        check(count == v->u.array.length, "string array count");
        for (unsigned k = 0; k < count; ++k)
            check(strings[k] == v->u.array.values[k]->u.string.ptr, "string array entry");
        check(strings[count] == nullptr, "string array terminator");
    } else {
        check(count == 12345, "count stored without a result");
    }
    std::free(strings);
    json_int_t **integers = jproc_get_int_array(state, i, nullptr);
    check((integers != nullptr) == all_integers, "jproc_get_int_array result");
    if (integers != nullptr) {
        for (unsigned k = 0; k < v->u.array.length; ++k)
            check(integers[k] == &v->u.array.values[k]->u.integer, "int array entry");
        check(integers[v->u.array.length] == nullptr, "int array terminator");
    }
    std::free(integers);
}

std::vector<json_value *> slots(jproc *state) {
    std::vector<json_value *> out;
    for (int i = 0; i < jproc_arguments(state); ++i)
        out.push_back(jproc_get_json(state, i));
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::size_t pattern_length = strnlen(reinterpret_cast<const char *>(data), size);
    const std::string pattern(reinterpret_cast<const char *>(data), pattern_length);
    if (pattern_length > 200 || pattern.find_first_of("0123456789") != std::string::npos)
        return 0; // explicit indices are the pattern harness's business
    const std::size_t offset = pattern_length < size ? pattern_length + 1 : size;
    // The document in a block of its own size, so that a read past it is seen.
    const std::size_t doc_length = size - offset;
    char *doc = static_cast<char *>(std::malloc(doc_length + 1));
    std::memcpy(doc, data + offset, doc_length);
    doc[doc_length] = '\0';

    jproc *state = jproc_prepare(pattern.c_str());
    if (state == nullptr) {
        std::free(doc);
        return 0;
    }
    json_value *expected = json_parse(doc, doc_length);
    const int opened = jproc_open_mem(state, doc, static_cast<int>(doc_length));
    check((opened == 0) == (expected != nullptr), "jproc_open_mem disagrees with the parser");
    if (expected != nullptr)
        json_value_free(expected);
    if (opened == 0) {
        std::vector<json_value *> first;
        int steps = 0;
        while (steps < 200 && jproc_step(state) == 1) {
            if (steps == 0)
                first = slots(state);
            for (int i = -1; i <= jproc_arguments(state); ++i)
                check_slot(state, i);
            ++steps;
        }
        check(steps >= 1, "no step at all");
        if (steps < 200)
            check(jproc_step(state) == 0, "step after the last");
        jproc_reset(state);
        check(jproc_step(state) == 1 && slots(state) == first, "reset does not start again");
    }
    // Reopening with the text's own length replaces the document.
    (void)jproc_open_mem(state, doc, -1);
    if (jproc_step(state) == 1)
        for (int i = 0; i < jproc_arguments(state); ++i)
            check_slot(state, i);
    jproc_free(state);
    std::free(doc);
    return 0;
}
