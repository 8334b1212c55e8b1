// Small helpers shared by the harnesses: splitting the input into fields,
// a per-process scratch directory, and an oracle check that aborts with a
// message the fuzzer shows next to the crashing input.
#ifndef QX_FUZZ_SUPPORT_HPP
#define QX_FUZZ_SUPPORT_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <ftw.h>
#include <unistd.h>

namespace qx_fuzz {

// Ends the run with a message: the fuzzer records the input as a crash.
// The value of a hexadecimal digit of either case, or -1.
inline int hex_value(unsigned char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

[[noreturn]] inline void fail(const char *what) {
    std::fprintf(stderr, "oracle violated: %s\n", what);
    std::abort();
}

inline void check(bool ok, const char *what) {
    if (!ok)
        fail(what);
}

// The input cut at every NUL byte (NUL bytes themselves are dropped).
inline std::vector<std::string> split_at_nul(const std::uint8_t *data, std::size_t size,
                                             std::size_t max_fields) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= size && fields.size() < max_fields; ++i) {
        if (i == size || data[i] == 0) {
            fields.emplace_back(reinterpret_cast<const char *>(data) + start, i - start);
            start = i + 1;
        }
    }
    return fields;
}

// One scratch directory per fuzzing process, removed at exit.
class scratch_dir {
  public:
    static scratch_dir &instance() {
        static scratch_dir dir;
        return dir;
    }
    const std::string &path() const { return path_; }
    std::string file(const char *name) const { return path_ + "/" + name; }

    // Writes the bytes to the named file in the scratch directory.
    std::string write(const char *name, const void *data, std::size_t size) const {
        std::string p = file(name);
        FILE *f = std::fopen(p.c_str(), "wb");
        if (f == nullptr)
            fail("cannot create a scratch file");
        if (size != 0 && std::fwrite(data, 1, size, f) != size)
            fail("cannot write a scratch file");
        std::fclose(f);
        return p;
    }

    // Reads a whole file; false when it cannot be opened.
    static bool read(const std::string &p, std::string &out) {
        FILE *f = std::fopen(p.c_str(), "rb");
        if (f == nullptr)
            return false;
        out.clear();
        char chunk[4096];
        std::size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
            out.append(chunk, n);
        std::fclose(f);
        return true;
    }

  private:
    scratch_dir() {
        const char *tmp = std::getenv("TMPDIR");
        std::string tmpl =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qxfuzz.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr)
            fail("cannot create the scratch directory");
        path_ = buf.data();
    }
    ~scratch_dir() {
        nftw(
            path_.c_str(),
            [](const char *p, const struct stat *, int, struct FTW *) { return ::remove(p); }, 8,
            FTW_DEPTH | FTW_PHYS);
    }
    std::string path_;
};

} // namespace qx_fuzz

#endif
