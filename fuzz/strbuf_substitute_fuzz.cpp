// Template substitution with the template, the delimiter and the pairs all
// taken from the input. Input: fields separated by NUL bytes, in the order
// delimiter, template, name, value, name, value, ...; an empty value field
// stands for a NULL value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "qxcommon-util/strbuf.h"
#include "qxcommon-util/strbuf_format.h"

namespace {

constexpr std::size_t max_fields = 9; // delimiter, template and up to 3 pairs + spare

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // Copy so that every field is NUL-terminated.
    char *copy = static_cast<char *>(std::malloc(size + 1));
    if (copy == nullptr)
        return 0;
    std::memcpy(copy, data, size);
    copy[size] = '\0';

    const char *fields[max_fields] = {};
    std::size_t count = 0;
    for (char *p = copy; count < max_fields && p <= copy + size; p += std::strlen(p) + 1)
        fields[count++] = p;
    if (count < 2 || fields[0][0] == '\0') {
        std::free(copy);
        return 0;
    }
    auto value = [&](std::size_t i) -> const char * {
        return i < count && fields[i][0] != '\0' ? fields[i] : nullptr;
    };
    auto name = [&](std::size_t i) -> const char * { return i < count ? fields[i] : nullptr; };

    strbuf sb{};
    if (strbuf_append(&sb, fields[1]) == 0) {
        const std::size_t template_length = sb.length;
        const int replaced = strbuf_substitute(&sb, fields[0], name(2), value(3), name(4),
                                               value(5), name(6), value(7), nullptr);
        if (replaced < -1 || (replaced == 0 && sb.length != template_length &&
                              std::strstr(fields[1], fields[0]) == nullptr))
            std::abort();
        if (replaced >= 0 && (sb.text == nullptr || sb.text[sb.length] != '\0'))
            std::abort();
    }
    strbuf_free(&sb);
    std::free(copy);
    return 0;
}
