// The patricia trie beside std::set<std::string> on one million random keys:
// insert, contains, delete and prefix walks. Both containers own copies of
// their keys; the set walks a prefix with lower_bound and iterates while the
// keys still begin with it.
//
//   cmake --preset bench && cmake --build --preset bench
//   build/bench/bench/patricia_bench
//
// On a shared machine compare the CPU column: the wall-clock time also counts
// the time the benchmark waited for a core. QX_BENCH_QUICK=1 shrinks the key
// set for a smoke run; bench/compare turns the results into ratios.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "bench_support.hpp"
#include "qxcommon-util/patricia.h"

namespace {

std::size_t key_count() {
    return qx_bench::scaled(1000000, 50000);
}
std::size_t prefix_count() {
    return qx_bench::scaled(20000, 2000);
}

// Keys of 6 to 20 bytes, every byte from 1 to 255, so that the trie sees
// bytes at and above 0x80 as often as ASCII ones.
std::vector<std::string> make_keys(std::uint32_t seed, std::size_t n) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> length(6, 20);
    std::uniform_int_distribution<int> byte(1, 255);
    std::vector<std::string> keys;
    keys.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        std::string key(static_cast<std::size_t>(length(rng)), '\0');
        for (char &c : key)
            c = static_cast<char>(byte(rng));
        keys.push_back(std::move(key));
    }
    return keys;
}

struct workload {
    std::vector<std::string> keys;     // to insert, in random order
    std::vector<std::string> lookups;  // the same keys in another order
    std::vector<std::string> misses;   // keys that are not stored
    std::vector<std::string> prefixes; // one- and two-byte prefixes of stored keys
};

const workload &the_workload() {
    static const workload w = [] {
        workload made;
        made.keys = make_keys(1, key_count());
        made.lookups = made.keys;
        std::mt19937 rng(2);
        std::shuffle(made.lookups.begin(), made.lookups.end(), rng);
        // At least 21 bytes: longer than any stored key, so never present.
        made.misses = make_keys(3, key_count());
        for (std::string &miss : made.misses)
            miss.append(15, 'x');
        for (std::size_t i = 0; i < prefix_count(); ++i)
            made.prefixes.push_back(made.lookups[i].substr(0, i % 10 == 0 ? 1 : 2));
        return made;
    }();
    return w;
}

int count_key(const char *key, void *arg) {
    benchmark::DoNotOptimize(key);
    ++*static_cast<std::size_t *>(arg);
    return 1;
}

class trie_set {
  public:
    trie_set() = default;
    trie_set(const trie_set &) = delete;
    trie_set &operator=(const trie_set &) = delete;
    ~trie_set() { patricia_clear(&tree_); }
    bool insert(const std::string &key) { return patricia_insert(&tree_, key.c_str()) == 2; }
    bool contains(const std::string &key) const {
        return patricia_contains(&tree_, key.c_str()) == 1;
    }
    bool erase(const std::string &key) { return patricia_delete(&tree_, key.c_str()) == 1; }
    std::size_t walk(const std::string &prefix) const {
        std::size_t count = 0;
        patricia_allprefixed(&tree_, prefix.c_str(), count_key, &count);
        return count;
    }
    void clear() { patricia_clear(&tree_); }

  private:
    patricia tree_{nullptr};
};

class std_string_set {
  public:
    bool insert(const std::string &key) { return set_.insert(key).second; }
    bool contains(const std::string &key) const { return set_.find(key) != set_.end(); }
    bool erase(const std::string &key) { return set_.erase(key) == 1; }
    std::size_t walk(const std::string &prefix) const {
        std::size_t count = 0;
        for (auto it = set_.lower_bound(prefix);
             it != set_.end() && it->compare(0, prefix.size(), prefix) == 0; ++it) {
            benchmark::DoNotOptimize(it->c_str());
            ++count;
        }
        return count;
    }
    void clear() { set_.clear(); }

  private:
    std::set<std::string> set_;
};

template <typename Set> void fill(Set &set, const workload &w) {
    for (const std::string &key : w.keys)
        benchmark::DoNotOptimize(set.insert(key));
}

// One filled set of each kind serves the read-only benchmarks, so that the
// run does not spend its time refilling them.
template <typename Set> const Set &filled() {
    static Set set;
    static const bool done = (fill(set, the_workload()), true);
    benchmark::DoNotOptimize(done);
    return set;
}

template <typename Set> void insert_all(benchmark::State &state) {
    const workload &w = the_workload();
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        Set set;
        fill(set, w);
        state.PauseTiming();
        set.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * w.keys.size()));
    meter.report(state);
}

template <typename Set> void contains_hits(benchmark::State &state) {
    const workload &w = the_workload();
    const Set &set = filled<Set>();

    for (auto _ : state) {
        std::size_t found = 0;
        for (const std::string &key : w.lookups)
            found += set.contains(key);
        if (found != w.keys.size())
            state.SkipWithError("a stored key was not found");
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * w.lookups.size()));
}

template <typename Set> void contains_misses(benchmark::State &state) {
    const workload &w = the_workload();
    const Set &set = filled<Set>();

    for (auto _ : state) {
        std::size_t found = 0;
        for (const std::string &key : w.misses)
            found += set.contains(key);
        if (found != 0)
            state.SkipWithError("a missing key was found");
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * w.misses.size()));
}

template <typename Set> void delete_all(benchmark::State &state) {
    const workload &w = the_workload();
    for (auto _ : state) {
        state.PauseTiming();
        Set set;
        fill(set, w);
        state.ResumeTiming();
        for (const std::string &key : w.lookups)
            benchmark::DoNotOptimize(set.erase(key));
        state.PauseTiming();
        set.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * w.lookups.size()));
}

template <typename Set> void prefix_walks(benchmark::State &state) {
    const workload &w = the_workload();
    const Set &set = filled<Set>();

    std::size_t handed_over = 0;
    for (auto _ : state) {
        handed_over = 0;
        for (const std::string &prefix : w.prefixes)
            handed_over += set.walk(prefix);
        benchmark::DoNotOptimize(handed_over);
    }
    state.counters["keys_per_walk"] =
        static_cast<double>(handed_over) / static_cast<double>(w.prefixes.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * w.prefixes.size()));
}

// Few iterations: each one handles a million keys, and the machine is shared.
#define QX_BENCH_PAIR(operation, iterations)                                                       \
    BENCHMARK_TEMPLATE(operation, trie_set)                                                        \
        ->Name(#operation "/patricia")                                                             \
        ->Unit(benchmark::kMillisecond)                                                            \
        ->Iterations(iterations);                                                                  \
    BENCHMARK_TEMPLATE(operation, std_string_set)                                                  \
        ->Name(#operation "/std_set")                                                              \
        ->Unit(benchmark::kMillisecond)                                                            \
        ->Iterations(iterations)

QX_BENCH_PAIR(insert_all, 2);
QX_BENCH_PAIR(contains_hits, 2);
QX_BENCH_PAIR(contains_misses, 2);
QX_BENCH_PAIR(delete_all, 2);
QX_BENCH_PAIR(prefix_walks, 2);

} // namespace

BENCHMARK_MAIN();
