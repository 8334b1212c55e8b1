// Modified UTF-7: UTF-16 code units into the form IMAP uses for mailbox
// names.
#include "qxcommon-util/mutf7.h"

#include <cstddef>
#include <cstdint>

#include "internal/codec_tables.hpp"

namespace qx::detail {

namespace {

// Base64 with "," in place of "/", so that an encoded name holds no path
// separator.
constexpr alphabet64 mutf7_alphabet = base64_variant('/', ',');

constexpr bool is_printable_ascii(std::uint16_t unit) noexcept {
    return unit >= 0x20 && unit <= 0x7E;
}

// Output goes one character at a time; a failed append is not reported and
// only leaves the output shorter.
void put(strbuf *sb, char c) noexcept {
    (void)strbuf_nappend(sb, &c, 1);
}

// Appends "&", the encoded bytes of the run and "-".
void put_encoded_run(strbuf *sb, const strbuf &run) noexcept {
    put(sb, '&');
    const auto *bytes = reinterpret_cast<const unsigned char *>(run.text);
    for (std::size_t i = 0; i < run.length; i += 3) {
        const std::size_t n = run.length - i < 3 ? run.length - i : 3;
        encode_base64_group(mutf7_alphabet, bytes + i, n, [sb](char c) { put(sb, c); });
    }
    put(sb, '-');
}

// Encodes the run of non-printable units starting at units and returns the
// first unit after it (a printable one or the terminating 0).
const std::uint16_t *encode_run(strbuf *sb, const std::uint16_t *units) noexcept {
    strbuf run{};
    const std::uint16_t *p = units;
    for (; *p != 0 && !is_printable_ascii(*p); ++p) {
        const unsigned char big_endian[2] = {static_cast<unsigned char>(*p >> 8),
                                             static_cast<unsigned char>(*p & 0xFF)};
        (void)strbuf_nappend(&run, big_endian, 2);
    }
    put_encoded_run(sb, run);
    strbuf_free(&run);
    return p;
}

} // namespace

} // namespace qx::detail

extern "C" {

QX_API void utf16_to_mutf7_enc(strbuf *sb, const uint16_t *units) {
    using namespace qx::detail;
    if (units == nullptr)
        return;
    for (const std::uint16_t *p = units; *p != 0;) {
        if (*p == '&') {
            put(sb, '&');
            put(sb, '-');
            ++p;
        } else if (is_printable_ascii(*p)) {
            put(sb, static_cast<char>(*p));
            ++p;
        } else {
            p = encode_run(sb, p);
        }
    }
}

} // extern "C"
