// Pieces of the INI engine that its own white-box tests call directly: the
// contracts these functions assert cannot be broken through the C interface.
#pragma once

#include <cstddef>
#include <cstdio>
#include <optional>

namespace qx::detail {

// The one line buffer of every engine call; a read takes at most 511 bytes.
inline constexpr int ini_buffer_size = 512;

enum class quote_mode : int { plain = 0, enquote = 1, dequote = 2 };

// Bounded copy: never writes more than maxlen bytes, always terminates.
char *save_strncpy(char *dest, const char *source, std::size_t maxlen, quote_mode option) noexcept;

// The key a lookup wants in its section: the first one named Key, whose
// cleaned value is copied, or the one at position idxKey (counted from 0),
// whose name is copied. A request with neither is a programming error.
struct wanted_key {
    const char *Key;
    std::optional<int> idxKey;

    static wanted_key named(const char *Key) noexcept { return {Key, std::nullopt}; }
    static wanted_key at(int idxKey) noexcept { return {nullptr, idxKey}; }
};

// The section header at a position of the file, counted from 0.
struct section_at {
    int idxSection;
};

// The engine's search, in its two forms. In the first section named Section
// (the part before the first header when Section is NULL or empty), finds the
// wanted key and copies its value or name into Buffer; or finds the header at
// a position and copies the section's name. False when there is none.
bool getkeystring(FILE *fp, const char *Section, wanted_key wanted, char *Buffer,
                  int BufferSize) noexcept;
bool getkeystring(FILE *fp, section_at wanted, char *Buffer, int BufferSize) noexcept;

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
