// The vector kernels of the codecs and escapes, behind one run-time choice of
// path.
//
// Each kernel does a leading part of a job on the vector path and returns how
// much of it it did; on the scalar path it does nothing and returns 0. The
// caller then does the rest with its own byte-exact loop, so the two paths
// give the same results by construction: a kernel only ever stops early.
#pragma once

#include <cstddef>

namespace qx::detail::simd {

// The path the kernels take. It is chosen once per process, on first use:
// the vector path when the CPU and the operating system support AVX2, unless
// the environment variable QXCOMMON_UTIL_SIMD is "scalar".
enum class path : int { undecided = 0, scalar = 1, avx2 = 2 };

inline constexpr const char *path_variable = "QXCOMMON_UTIL_SIMD";

path active_path() noexcept;

// Replaces the choice for the rest of the process; a vector path that the
// machine lacks falls back to the scalar one. Returns the path now taken.
path select_path(path wanted) noexcept;

// Base64 of whole groups of three of the n bytes at in, without line breaks;
// returns the bytes consumed (a multiple of three).
std::size_t encode_base64_groups(const unsigned char *in, std::size_t n, char *out) noexcept;

// Decodes whole groups of four of the n characters at in while every one of
// them is in the Base64 alphabet and the bytes fit in room; returns the
// characters consumed (a multiple of four).
std::size_t decode_base64_groups(const char *in, std::size_t n, unsigned char *out,
                                 std::size_t room) noexcept;

// Decodes pairs of hex digits of the C string in, at most `most` bytes,
// stopping before a round that holds anything but hex digits; returns the
// bytes stored.
std::size_t decode_hex_pairs(const char *in, unsigned char *out, std::size_t most) noexcept;

// Percent-encodes whole blocks of the n bytes at source into out; returns the
// bytes of source consumed and sets *end to the end of what was written.
std::size_t percent_encode_blocks(const char *source, std::size_t n, char *out,
                                  char **end) noexcept;

} // namespace qx::detail::simd
