// Pieces of the INI engine that its own white-box tests call directly: the
// contracts these functions assert cannot be broken through the C interface.
#pragma once

#include <cstddef>
#include <cstdio>

namespace qx::detail {

// The one line buffer of every engine call; a read takes at most 511 bytes.
inline constexpr int ini_buffer_size = 512;

enum class quote_mode : int { plain = 0, enquote = 1, dequote = 2 };

// Bounded copy: never writes more than maxlen bytes, always terminates.
char *save_strncpy(char *dest, const char *source, std::size_t maxlen, quote_mode option) noexcept;

// Finds a key (by name or by index) in a section (by name or by index) of the
// open file and copies the value, key name or section name into Buffer.
bool getkeystring(FILE *fp, const char *Section, const char *Key, int idxSection, int idxKey,
                  char *Buffer, int BufferSize) noexcept;

// Writes the *size bytes read since *mark from rfp to wfp; see ini_engine.cpp.
// -1 when a seek, read or write failed.
int cache_flush(char *buffer, int *size, FILE *rfp, FILE *wfp, fpos_t *mark) noexcept;

// Writes "key=value\n", composed in LocalBuffer (ini_buffer_size bytes);
// false when the write failed.
bool write_key_line(FILE *fp, const char *Key, const char *Value, char *LocalBuffer) noexcept;

#ifdef QX_INI_ENGINE_TEST_SEAMS
// Set by the white-box tests only: called with the byte an assertion is about
// to check, so that a test can break an invariant no file can break.
extern void (*ini_test_corrupt)(char *checked_byte);
#endif

} // namespace qx::detail
