// jproc_prepare on arbitrary patterns, against a reference parser written
// from the pattern language: whether the pattern compiles (with its two
// tolerated forms, and the rejection of a pattern whose explicit index would
// leave a placeholder outside the slot table) and the argument count. Each
// compiled pattern is then run over a fixed document, so that matching with
// members or arrays left without a sub-pattern is exercised too.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/jproc.h"

namespace {

class reference {
  public:
    explicit reference(std::string text) : t_(std::move(text)) {}

    // Compiles; false when jproc_prepare must give NULL.
    bool compile() {
        if (!pattern())
            return false;
        for (int i : kept_)
            if (i >= count_)
                return false;
        return true;
    }
    int count() const { return count_; }

  private:
    bool at(char c) const { return pos_ < t_.size() && t_[pos_] == c; }
    void skip_spaces() {
        while (at(' '))
            ++pos_;
    }

    bool pattern() {
        skip_spaces();
        if (pos_ >= t_.size())
            return false;
        switch (t_[pos_]) {
        case '?':
            return placeholder();
        case '[':
            return array();
        case '{':
            return object();
        default:
            return false;
        }
    }

    bool placeholder() {
        ++pos_;
        if (pos_ < t_.size() && t_[pos_] >= '0' && t_[pos_] <= '9') {
            long long n = 0;
            while (pos_ < t_.size() && t_[pos_] >= '0' && t_[pos_] <= '9')
                n = n * 10 + (t_[pos_++] - '0');
            count_ = static_cast<int>(n) + 1;
            kept_.push_back(static_cast<int>(n));
        } else {
            kept_.push_back(count_++);
        }
        return true;
    }

    bool array() {
        ++pos_;
        const std::size_t mark = kept_.size();
        const std::size_t inside = pos_;
        if (pattern()) {
            skip_spaces();
            if (at(']')) {
                ++pos_;
                return true;
            }
            kept_.resize(mark);
            return false;
        }
        kept_.resize(mark);
        pos_ = inside; // "[ ]": brackets with only spaces between them
        skip_spaces();
        if (!at(']'))
            return false;
        ++pos_;
        return true;
    }

    bool object() {
        ++pos_;
        skip_spaces();
        const std::size_t mark = kept_.size();
        for (;;) {
            if (!at('\'')) {
                kept_.resize(mark);
                return false;
            }
            const std::size_t end = t_.find('\'', pos_ + 1);
            if (end == std::string::npos) {
                kept_.resize(mark);
                return false;
            }
            pos_ = end + 1;
            skip_spaces();
            if (!at(':')) {
                kept_.resize(mark);
                return false;
            }
            ++pos_;
            const std::size_t value_start = pos_;
            const std::size_t member_mark = kept_.size();
            if (!pattern()) {
                // The object ends at a member whose pattern does not parse.
                kept_.resize(member_mark);
                pos_ = value_start;
                return true;
            }
            while (pos_ < t_.size() && t_[pos_] != ',' && t_[pos_] != '}')
                ++pos_;
            if (pos_ >= t_.size()) {
                kept_.resize(mark);
                return false;
            }
            if (at('}')) {
                ++pos_;
                return true;
            }
            ++pos_;
            skip_spaces();
        }
    }

    std::string t_;
    std::size_t pos_ = 0;
    int count_ = 0;
    std::vector<int> kept_;
};

constexpr char document[] =
    R"({"a": [1, 2, {"b": "x", "c": [3, "y"]}], "b": {"a": [], "c": 4294967297},)"
    R"( "": "empty", "s": ["p", "q"], "n": [7, 8, 9]})";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    text = std::string(text.c_str());
    // An index of n makes n + 1 slots by design: keep the indices small
    // enough that the slot table stays within the fuzzer's memory limit.
    std::size_t run = 0;
    for (char c : text) {
        run = c >= '0' && c <= '9' ? run + 1 : 0;
        if (run > 4)
            return 0;
    }
    reference ref(text);
    const bool ok = ref.compile();
    jproc *state = jproc_prepare(text.c_str());
    qx_fuzz::check((state != nullptr) == ok, "jproc_prepare accepts what it must not, or not");
    if (state == nullptr)
        return 0;
    qx_fuzz::check(jproc_arguments(state) == ref.count(), "argument count");
    qx_fuzz::check(jproc_open_mem(state, document, -1) == 0, "fixed document");
    int steps = 0;
    while (steps < 1000 && jproc_step(state) == 1) {
        ++steps;
        for (int i = -1; i <= jproc_arguments(state); ++i) {
            (void)jproc_get_type(state, i);
            (void)jproc_get_integer(state, i);
            (void)jproc_get_string(state, i);
        }
    }
    // Sibling arrays multiply: only a short run is walked to its end.
    qx_fuzz::check(steps >= 1, "no step at all");
    if (steps < 1000)
        qx_fuzz::check(jproc_step(state) == 0, "step after the last");
    jproc_free(state);
    return 0;
}
