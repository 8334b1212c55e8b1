// Helpers shared by the benchmark programs: the reduced sizes of a smoke run,
// memory figures and a scratch directory.
#ifndef QX_BENCH_SUPPORT_HPP
#define QX_BENCH_SUPPORT_HPP

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace qx_bench {

// QX_BENCH_QUICK set to anything but "" or "0" asks for small inputs, so that
// a CI run only checks that every case still builds, runs and agrees with
// its peer.
inline bool quick() {
    const char *value = std::getenv("QX_BENCH_QUICK");
    return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

inline std::size_t scaled(std::size_t full, std::size_t small) {
    return quick() ? small : full;
}

constexpr std::size_t mebibyte = std::size_t{1} << 20;

// Resident set size now, in KiB (second field of /proc/self/statm).
inline long resident_kib() {
    std::FILE *f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr)
        return 0;
    long total = 0;
    long resident = 0;
    const int got = std::fscanf(f, "%ld %ld", &total, &resident);
    std::fclose(f);
    if (got != 2)
        return 0;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The kernel's high-water mark of the resident set (VmHWM of
// /proc/self/status), in KiB; 0 when it cannot be read.
inline long high_water_kib() {
    std::FILE *f = std::fopen("/proc/self/status", "r");
    if (f == nullptr)
        return 0;
    char line[256];
    long kib = 0;
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (std::sscanf(line, "VmHWM: %ld", &kib) == 1)
            break;
    std::fclose(f);
    return kib;
}

// Lowers the high-water mark to the present resident size, so that it then
// tells the peak of what follows. Writing "5" to /proc/self/clear_refs does
// that (Linux 4.0 and later); false when the kernel refused.
inline bool reset_high_water() {
    std::FILE *f = std::fopen("/proc/self/clear_refs", "w");
    if (f == nullptr)
        return false;
    const bool written = std::fputs("5", f) >= 0;
    return std::fclose(f) == 0 && written;
}

// Peak resident set size of the process so far, in KiB. ru_maxrss is not
// used: Linux carries it over from the parent across fork and exec, so a
// program started by a large parent would report the parent's peak.
inline long peak_kib() {
    const long hwm = high_water_kib();
    if (hwm > 0)
        return hwm;
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Gives freed heap memory back to the system (malloc_trim) and resets the
// high-water mark when a case starts and reports, when it ends,
// the peak resident size ("peak_rss_mib") and how far it rose above the
// resident size at the start ("extra_rss_mib"). Where the reset is refused
// the peak may come from an earlier case of the same process: bench/compare
// runs each memory case alone in its own process, which is right either way.
// Without the trim, blocks freed by an earlier run of the same case would
// still be resident at the start and hide what the case needs.
class memory_meter {
  public:
    memory_meter() : reset_(trim_and_reset()), start_kib_(resident_kib()) {}
    void report(benchmark::State &state) const {
        const long peak = peak_kib();
        const long extra = peak > start_kib_ ? peak - start_kib_ : 0;
        state.counters["peak_rss_mib"] = static_cast<double>(peak) / 1024.0;
        state.counters["extra_rss_mib"] = static_cast<double>(extra) / 1024.0;
        state.counters["rss_reset"] = reset_ ? 1 : 0;
    }

  private:
    static bool trim_and_reset() {
        malloc_trim(0);
        return reset_high_water();
    }
    bool reset_;
    long start_kib_;
};

// A directory of its own under $TMPDIR (or /tmp), removed with the files the
// case put in it.
class scratch_dir {
  public:
    scratch_dir() {
        const char *base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/qx-bench-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr)
            path_ = pattern;
    }
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;
    ~scratch_dir() {
        for (const std::string &file : files_)
            std::remove(file.c_str());
        if (!path_.empty())
            rmdir(path_.c_str());
    }
    bool ok() const { return !path_.empty(); }
    // Writes text to a new file in the directory; returns its path, or "" on
    // failure.
    std::string write(const std::string &name, const std::string &text) {
        if (!ok())
            return {};
        const std::string file = path_ + "/" + name;
        std::FILE *f = std::fopen(file.c_str(), "w");
        if (f == nullptr)
            return {};
        files_.push_back(file);
        const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size();
        if (std::fclose(f) != 0 || !written)
            return {};
        return file;
    }

  private:
    std::string path_;
    std::vector<std::string> files_;
};

} // namespace qx_bench

#endif
