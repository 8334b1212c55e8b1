// The two growth rules of strbuf, for every family that writes into one.
#pragma once

#include <cstddef>

#include "qxcommon-util/strbuf.h"

namespace qx::detail {

// Sizes produced by growth have their ten low bits set: k * 1024 - 1.
constexpr std::size_t round_to_kib_less_one(std::size_t n) noexcept {
    return n | 1023U;
}

// Rule A: makes room for n more bytes and the NUL after them. The new size is
// derived from the old allocated size, so every growth adds at least n + 1.
// A growth is one realloc of exactly the new size, at any size. Returns 0, or
// -1 with the buffer unchanged.
int strbuf_reserve(strbuf *sb, std::size_t n) noexcept;

// Rule B: makes room for a text of newlength bytes and its NUL, sizing the
// block from the requested length alone. Returns 0, or -1 unchanged.
int strbuf_reserve_length(strbuf *sb, std::size_t newlength) noexcept;

// Moves the fields of from into to (whose old text the caller has released)
// and leaves from as a zero record.
void strbuf_move(strbuf *to, strbuf *from) noexcept;

} // namespace qx::detail
