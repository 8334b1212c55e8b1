// One lookup of the last key of a 200-key, 10-section INI file: ini_gets
// beside glib's GKeyFile (load the file, get the value, free, per lookup) and
// inih's ini_parse with a handler that records the value. ini_gets opens,
// scans and closes the file on every call, so every side reads the file each
// time.
//
//   cmake --preset bench && cmake --build --preset bench
//   build/bench/bench/ini_bench
#include <benchmark/benchmark.h>

#include <glib.h>
#include <ini.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "bench_support.hpp"
#include "qxcommon-util/ini.h"

namespace {

constexpr int section_count = 10;
constexpr int keys_per_section = 20;
constexpr char last_section[] = "section9";
constexpr char last_key[] = "key199";
constexpr char last_value[] = "value number 199";

// Sections "section0" to "section9", 20 keys each, numbered through the file,
// each section after a comment line and a blank line.
std::string make_ini() {
    std::string text;
    int key = 0;
    for (int s = 0; s < section_count; ++s) {
        text += "# settings of part " + std::to_string(s) + "\n\n";
        text += "[section" + std::to_string(s) + "]\n";
        for (int k = 0; k < keys_per_section; ++k, ++key)
            text += "key" + std::to_string(key) + " = value number " + std::to_string(key) + "\n";
    }
    return text;
}

struct ini_file {
    qx_bench::scratch_dir dir;
    std::string path = dir.write("settings.ini", make_ini());
};

void ini_gets_qx(benchmark::State &state) {
    ini_file file;
    char value[64];
    for (auto _ : state) {
        const int n = ini_gets(last_section, last_key, "", value, sizeof value, file.path.c_str());
        if (n != static_cast<int>(std::strlen(last_value)) || std::strcmp(value, last_value) != 0)
            state.SkipWithError("ini_gets did not find the value");
        benchmark::DoNotOptimize(value);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

void ini_gets_gkeyfile(benchmark::State &state) {
    ini_file file;
    for (auto _ : state) {
        GKeyFile *kf = g_key_file_new();
        gchar *value = nullptr;
        if (g_key_file_load_from_file(kf, file.path.c_str(), G_KEY_FILE_NONE, nullptr))
            value = g_key_file_get_value(kf, last_section, last_key, nullptr);
        if (value == nullptr || std::strcmp(value, last_value) != 0)
            state.SkipWithError("GKeyFile did not find the value");
        benchmark::DoNotOptimize(value);
        g_free(value);
        g_key_file_free(kf);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

struct inih_lookup {
    char value[64];
    bool found;
};

int record_value(void *user, const char *section, const char *name, const char *value) {
    auto *lookup = static_cast<inih_lookup *>(user);
    if (!lookup->found && std::strcmp(section, last_section) == 0 &&
        std::strcmp(name, last_key) == 0) {
        std::snprintf(lookup->value, sizeof lookup->value, "%s", value);
        lookup->found = true;
    }
    return 1;
}

void ini_gets_inih(benchmark::State &state) {
    ini_file file;
    for (auto _ : state) {
        inih_lookup lookup{};
        const int rc = ini_parse(file.path.c_str(), record_value, &lookup);
        if (rc != 0 || !lookup.found || std::strcmp(lookup.value, last_value) != 0)
            state.SkipWithError("inih did not find the value");
        benchmark::DoNotOptimize(lookup.value);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

BENCHMARK(ini_gets_qx)->Name("ini_gets/qx")->Unit(benchmark::kMicrosecond);
BENCHMARK(ini_gets_gkeyfile)->Name("ini_gets/gkeyfile")->Unit(benchmark::kMicrosecond);
BENCHMARK(ini_gets_inih)->Name("ini_gets/inih")->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
