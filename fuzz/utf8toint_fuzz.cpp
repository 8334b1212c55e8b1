// utf8toint at every position of the input, against a small decoder written
// from the decoding rules: the code point and where the pointer is left are
// fixed by the bytes alone, so both must agree exactly.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.hpp"
#include "qxcommon-util/escape.h"

namespace {

struct decoded {
    unsigned int value;
    std::size_t advance; // where the pointer ends, relative to the start
};

decoded reference(const unsigned char *s) {
    const unsigned int lead = s[0];
    if (lead < 0x80)
        return {lead, 1};
    if (lead < 0xC0)
        return {0, 0};
    std::size_t count = 3;
    unsigned int value = lead & 0x07;
    if (lead < 0xE0) {
        count = 1;
        value = lead & 0x1F;
    } else if (lead < 0xF0) {
        count = 2;
        value = lead & 0x0F;
    }
    for (std::size_t i = 1; i <= count; ++i) {
        if (s[i] < 0x80 || s[i] > 0xBF)
            return {0, i};
        value = (value << 6) + (s[i] & 0x3F);
    }
    return {value, count + 1};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // An exact-size copy with its NUL, so that a read past the NUL is seen.
    auto *copy = static_cast<unsigned char *>(std::malloc(size + 1));
    std::memcpy(copy, data, size);
    copy[size] = 0;
    const std::size_t length = strnlen(reinterpret_cast<const char *>(copy), size);
    for (std::size_t i = 0; i <= length; ++i) {
        const char *p = reinterpret_cast<const char *>(copy + i);
        const unsigned int value = utf8toint(&p);
        const decoded want = reference(copy + i);
        qx_fuzz::check(value == want.value, "utf8toint value");
        qx_fuzz::check(p == reinterpret_cast<const char *>(copy + i + want.advance),
                       "utf8toint pointer");
    }
    std::free(copy);
    return 0;
}
