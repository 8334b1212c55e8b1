// jproc_step over a generated document of about 10 MB (an array of groups,
// each an object with an array of record objects) beside a hand-written loop
// over the same json_value tree that reads the same four values per record.
// The tree is parsed once, outside the timing; jproc borrows it.
//
//   cmake --preset bench && cmake --build --preset bench
//   build/bench/bench/jproc_bench
//
// QX_BENCH_QUICK=1 shrinks the document for a smoke run.
#include <benchmark/benchmark.h>

#include <json-parser/json.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "bench_support.hpp"
#include "qxcommon-util/jproc.h"

namespace {

constexpr int records_per_group = 100;
constexpr char pattern[] = "[{'group': ?, 'records': [{'id': ?, 'name': ?, 'score': ?}]}]";

struct document {
    std::string text;
    json_value *root = nullptr;
    std::size_t records = 0;
    std::uint64_t checksum = 0; // what both readers must come to
};

// Records carry members that nobody reads, before and after the read ones,
// so that both readers have to search the object.
const document &the_document() {
    static const document doc = [] {
        document made;
        const std::size_t target = qx_bench::scaled(10 * qx_bench::mebibyte, 200 * 1024);
        made.text = "[";
        int id = 0;
        for (int group = 0; made.text.size() < target; ++group) {
            if (group != 0)
                made.text += ",";
            made.text += "{\"group\":" + std::to_string(group) + ",\"owner\":\"team-" +
                         std::to_string(group % 7) + "\",\"records\":[";
            for (int r = 0; r < records_per_group; ++r, ++id) {
                const int score = id * 37 % 1000;
                const std::string name = "record-" + std::to_string(id);
                if (r != 0)
                    made.text += ",";
                made.text += "{\"kind\":\"sample\",\"id\":" + std::to_string(id) + ",\"name\":\"" +
                             name + "\",\"active\":true,\"score\":" + std::to_string(score) +
                             ",\"tags\":[\"a\",\"b\"]}";
                made.checksum +=
                    static_cast<std::uint64_t>(group) + static_cast<std::uint64_t>(id) +
                    static_cast<std::uint64_t>(score) + static_cast<unsigned char>(name[7]);
                ++made.records;
            }
            made.text += "]}";
        }
        made.text += "]";
        made.root = json_parse(made.text.c_str(), made.text.size());
        return made;
    }();
    return doc;
}

void jproc_step_qx(benchmark::State &state) {
    const document &doc = the_document();
    if (doc.root == nullptr) {
        state.SkipWithError("the document did not parse");
        return;
    }
    jproc *jp = jproc_prepare(pattern);
    if (jp == nullptr) {
        state.SkipWithError("the pattern did not compile");
        return;
    }
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        std::uint64_t sum = 0;
        std::size_t steps = 0;
        jproc_open_json(jp, doc.root);
        while (jproc_step(jp) == 1) {
            const char *name = jproc_get_string(jp, 2);
            if (name == nullptr)
                continue; // the last step after an empty array, if any
            sum += static_cast<std::uint64_t>(jproc_get_integer(jp, 0)) +
                   static_cast<std::uint64_t>(jproc_get_integer(jp, 1)) +
                   static_cast<std::uint64_t>(jproc_get_integer(jp, 3)) +
                   static_cast<unsigned char>(name[7]);
            ++steps;
        }
        if (steps != doc.records || sum != doc.checksum)
            state.SkipWithError("jproc did not read every record");
        benchmark::DoNotOptimize(sum);
    }
    jproc_free(jp);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * doc.records));
    meter.report(state);
}

const json_value *member(const json_value *object, const char *name) {
    if (object == nullptr || object->type != json_object)
        return nullptr;
    for (unsigned int i = 0; i < object->u.object.length; ++i)
        if (std::strcmp(object->u.object.values[i].name, name) == 0)
            return object->u.object.values[i].value;
    return nullptr;
}

// The low 32 bits as a signed value, as jproc_get_integer gives them.
long integer_of(const json_value *value) {
    if (value == nullptr || value->type != json_integer)
        return -1;
    return static_cast<std::int32_t>(value->u.integer);
}

void jproc_step_hand(benchmark::State &state) {
    const document &doc = the_document();
    if (doc.root == nullptr || doc.root->type != json_array) {
        state.SkipWithError("the document did not parse");
        return;
    }
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        std::uint64_t sum = 0;
        std::size_t seen = 0;
        for (unsigned int g = 0; g < doc.root->u.array.length; ++g) {
            const json_value *group = doc.root->u.array.values[g];
            const long group_number = integer_of(member(group, "group"));
            const json_value *records = member(group, "records");
            if (records == nullptr || records->type != json_array)
                continue;
            for (unsigned int r = 0; r < records->u.array.length; ++r) {
                const json_value *record = records->u.array.values[r];
                const json_value *name = member(record, "name");
                if (name == nullptr || name->type != json_string)
                    continue;
                sum += static_cast<std::uint64_t>(group_number) +
                       static_cast<std::uint64_t>(integer_of(member(record, "id"))) +
                       static_cast<std::uint64_t>(integer_of(member(record, "score"))) +
                       static_cast<unsigned char>(name->u.string.ptr[7]);
                ++seen;
            }
        }
        if (seen != doc.records || sum != doc.checksum)
            state.SkipWithError("the hand loop did not read every record");
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * doc.records));
    meter.report(state);
}

BENCHMARK(jproc_step_qx)->Name("jproc_step/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(jproc_step_hand)->Name("jproc_step/hand_loop")->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
