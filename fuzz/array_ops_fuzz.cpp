// qx_array driven by an operation script: appends (plain, unique, growing,
// printf), resizes, copies and flattenings, checked after every step
// against a model (the entries as strings and the free count) and against
// the block layout: entry slots, NULL terminator, free count, zero free
// area, and the texts packed downwards from the block's end, the first
// appended text ending the block.
// Input: byte 0 is the initial free space, then operations of one byte each
// followed by their arguments: for appends a length byte (bit 7: pass -1,
// bits 0-3: bytes of text, bits 4-6: how many of them to pass as len) and
// the text's bytes; for a resize one byte of extra space.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/array.h"

using qx_fuzz::check;

namespace {

constexpr std::size_t word = sizeof(char *);

struct model {
    std::vector<std::string> entries;
    std::size_t free = 0;

    std::size_t size() const {
        std::size_t total = (entries.size() + 2) * word + free;
        for (const std::string &e : entries)
            total += e.size() + 1;
        return total;
    }
    bool has(const std::string &s) const {
        for (const std::string &e : entries)
            if (e == s)
                return true;
        return false;
    }
};

void check_layout(char **a, const model &m) {
    const std::size_t n = m.entries.size();
    check(qx_array_count(a) == n, "entry count");
    check(qx_array_size(a) == m.size(), "block size");
    check(a[n] == nullptr, "terminator");
    std::size_t free_count;
    std::memcpy(&free_count, &a[n + 1], sizeof free_count);
    check(free_count == m.free, "free count");
    const char *free_area = reinterpret_cast<const char *>(&a[n + 2]);
    for (std::size_t i = 0; i < m.free; ++i)
        check(free_area[i] == '\0', "free area not zero");
    const char *end = reinterpret_cast<const char *>(a) + m.size();
    for (std::size_t i = 0; i < n; ++i) {
        end -= m.entries[i].size() + 1;
        check(a[i] == end, "text not packed downwards from the block's end");
        check(std::memcmp(a[i], m.entries[i].c_str(), m.entries[i].size() + 1) == 0, "entry text");
    }
    check(end == free_area + m.free, "texts do not meet the free area");
}

// Both flattenings, up to the NULL and with the terminator taken as a
// slot of its own (a hole).
void check_flatten(char **a, const model &m, bool with_hole, bool raw) {
    const std::size_t n = m.entries.size();
    const std::size_t slots = with_hole ? n + 1 : n;
    std::size_t want_size = (slots + 1) * word;
    for (const std::string &e : m.entries)
        want_size += e.size() + 1;
    std::size_t got_size = 0;
    const int count = with_hole ? static_cast<int>(slots) : -1;
    char **f =
        raw ? qx_array_flatten_raw(a, count, &got_size) : qx_array_flatten(a, count, &got_size);
    check(f != nullptr, "flatten failed");
    check(got_size == want_size, "flatten size");
    const char *base = reinterpret_cast<const char *>(f);
    const char *next = base + (slots + 1) * word;
    for (std::size_t i = 0; i < n; ++i) {
        const char *p = raw ? base + reinterpret_cast<std::uintptr_t>(f[i]) : f[i];
        check(p == next, "flattened string out of place");
        check(std::memcmp(p, m.entries[i].c_str(), m.entries[i].size() + 1) == 0,
              "flattened string");
        next += m.entries[i].size() + 1;
    }
    if (with_hole)
        check(f[n] == nullptr, "hole not kept");
    check(f[slots] == nullptr, "flattened terminator");
    check(next == base + want_size, "flattened strings do not fill the block");
    std::free(f);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    model m;
    m.free = data[0] % 64;
    char **a = qx_array_new(m.free);
    check(a != nullptr, "qx_array_new");
    check_layout(a, m);

    std::size_t pos = 1;
    for (int steps = 0; pos < size && steps < 64; ++steps) {
        const std::uint8_t op = data[pos++];
        switch (op % 8) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4: {
            if (pos >= size)
                break;
            const std::uint8_t l = data[pos++];
            std::string s;
            for (std::size_t k = 0; k < (l & 15u) && pos < size; ++k) {
                const char c = static_cast<char>(data[pos++]);
                s.push_back(c == '\0' ? 'z' : c);
            }
            const bool whole = (l & 0x80) != 0;
            const std::size_t take =
                whole ? s.size() : std::min<std::size_t>(s.size(), (l >> 4) & 7);
            const ssize_t len = whole ? -1 : static_cast<ssize_t>(take);
            const std::string added = s.substr(0, take);
            const std::size_t need = added.size() + 1 + word;
            const int kind = op % 8;
            const bool unique = kind == 1 || kind == 3;
            const bool grow = kind >= 2;
            int want = 0;
            if (unique && m.has(added)) {
                want = -1;
            } else if (m.free < need && !grow) {
                want = -1;
            } else {
                if (m.free < need)
                    m.free = need;
                m.free -= need;
                m.entries.push_back(added);
            }
            int got;
            switch (kind) {
            case 0:
                got = qx_array_append(a, s.c_str(), len);
                break;
            case 1:
                got = qx_array_append_unique(a, s.c_str(), len);
                break;
            case 2:
                got = qx_array_append_resize(&a, s.c_str(), len);
                break;
            case 3:
                got = qx_array_append_resize_unique(&a, s.c_str(), len);
                break;
            default:
                got = qx_array_append_resize_printf(&a, "%s", added.c_str());
                break;
            }
            check(got == want, "append result");
            break;
        }
        case 5: {
            const std::size_t more = pos < size ? data[pos++] % 32 : 0;
            char **b = qx_array_resize(a, more);
            if (more == 0) {
                check(b == nullptr, "resize by 0 is not NULL");
            } else {
                check(b != nullptr, "resize failed");
                a = b;
                m.free += more;
            }
            break;
        }
        case 6: {
            char **b = qx_array_copy(a);
            check(b != nullptr, "copy failed");
            check(qx_array_size(b) == qx_array_size(a), "copy size");
            std::free(a);
            a = b;
            break;
        }
        default:
            check_flatten(a, m, (op & 8) != 0, (op & 16) != 0);
            break;
        }
        check_layout(a, m);
    }
    std::free(a);
    return 0;
}
