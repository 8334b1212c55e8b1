// The JSON step processor, observed through <qxcommon-util/jproc.h>.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include <qxcommon-util/jproc.h>

#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/temp_dir.hpp"

namespace {

struct jproc_deleter {
    void operator()(jproc *state) const { jproc_free(state); }
};
using jproc_ptr = std::unique_ptr<jproc, jproc_deleter>;

jproc_ptr prepare(const char *pattern) {
    return jproc_ptr(jproc_prepare(pattern));
}

// A prepared state with a document parsed from text; fails the test when
// either step fails.
jproc_ptr open_on(const char *pattern, const char *document) {
    jproc_ptr state = prepare(pattern);
    EXPECT_NE(state, nullptr) << pattern;
    if (state != nullptr) {
        EXPECT_EQ(jproc_open_mem(state.get(), document, -1), 0) << document;
    }
    return state;
}

// What one slot holds, written out for comparisons: "-" for NULL, the text
// of a string, the number of an integer, "<type N>" for other types.
std::string describe(jproc *state, int index) {
    json_value *value = jproc_get_json(state, index);
    if (value == nullptr)
        return "-";
    if (value->type == json_string)
        return value->u.string.ptr;
    if (value->type == json_integer)
        return std::to_string(value->u.integer);
    return "<type " + std::to_string(value->type) + ">";
}

// Every step until jproc_step returns 0, each as its slots joined by ",".
std::vector<std::string> all_steps(jproc *state, int limit = 100) {
    std::vector<std::string> steps;
    while (limit-- > 0 && jproc_step(state) == 1) {
        std::string line;
        for (int i = 0; i < jproc_arguments(state); ++i)
            line += (i == 0 ? "" : ",") + describe(state, i);
        steps.push_back(line);
    }
    return steps;
}

using steps = std::vector<std::string>;

// ---- Compiling ----------------------------------------------------------

TEST(JprocPrepare, GivesAStateWithoutDocument) {
    jproc_ptr state = prepare("?");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->document, nullptr);
    EXPECT_EQ(state->iterators, nullptr);
    EXPECT_EQ(state->done, 0);
    EXPECT_EQ(state->flags, 0);
    EXPECT_EQ(jproc_arguments(state.get()), 1);
    ASSERT_NE(state->root, nullptr);
    EXPECT_EQ(state->root->kind, JPROC_PATTERN_PLACEHOLDER);
    EXPECT_EQ(state->root->u.index, 0);
}

TEST(JprocPrepare, NumbersBarePlaceholdersInPatternOrder) {
    jproc_ptr state = prepare("{'a': ?, 'b': [?], 'c': {'d': ?}}");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 3);
    EXPECT_EQ(
        jproc_open_mem(state.get(), R"({"c": {"d": "third"}, "b": ["second"], "a": "first"})", -1),
        0);
    EXPECT_EQ(all_steps(state.get()), (steps{"first,second,third"}));
}

TEST(JprocPrepare, BuildsTheTreeInPatternOrder) {
    jproc_ptr state = prepare("{'x': [?], 'y': ?}");
    ASSERT_NE(state, nullptr);
    const jproc_pattern *root = state->root;
    ASSERT_EQ(root->kind, JPROC_PATTERN_OBJECT);
    const jproc_member *x = root->u.members;
    ASSERT_NE(x, nullptr);
    EXPECT_STREQ(x->name, "x");
    ASSERT_EQ(x->pattern->kind, JPROC_PATTERN_ARRAY);
    EXPECT_EQ(x->pattern->u.iterator->index, 0u);
    EXPECT_EQ(x->pattern->u.iterator->pattern->kind, JPROC_PATTERN_PLACEHOLDER);
    const jproc_member *y = x->next;
    ASSERT_NE(y, nullptr);
    EXPECT_STREQ(y->name, "y");
    EXPECT_EQ(y->pattern->kind, JPROC_PATTERN_PLACEHOLDER);
    EXPECT_EQ(y->pattern->u.index, 1);
    EXPECT_EQ(y->next, nullptr);
    ASSERT_NE(state->args, nullptr);
}

TEST(JprocPrepare, PatternWithoutPlaceholdersHasNoSlots) {
    jproc_ptr state = prepare("[ ]");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 0);
    EXPECT_EQ(state->args, nullptr);
}

TEST(JprocPrepare, IgnoresTextAfterTheRootPattern) {
    // Only "?1" is compiled; it sets the count to 2 and slot 0 stays unused.
    jproc_ptr state = open_on("?1 ?", "17");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 2);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(jproc_get_json(state.get(), 0), nullptr);
    EXPECT_EQ(jproc_get_integer(state.get(), 1), 17);
    EXPECT_EQ(jproc_step(state.get()), 0);

    jproc_ptr trailing = prepare("[?] garbage ] }");
    ASSERT_NE(trailing, nullptr);
    EXPECT_EQ(jproc_arguments(trailing.get()), 1);
}

TEST(JprocPrepare, AcceptsLeadingAndInnerSpaces) {
    jproc_ptr state =
        open_on("   {   'a'   :   [   ?   ]   ,   'b'  :  ?  }", R"({"a":[1],"b":2})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1,2"}));
}

TEST(JprocPrepare, TabsAreNotBlanks) {
    EXPECT_EQ(prepare("\t?"), nullptr);
    EXPECT_EQ(prepare("[\t?]"), nullptr);
    EXPECT_EQ(prepare("{\t'a': ?}"), nullptr);
    EXPECT_EQ(prepare("{'a'\t: ?}"), nullptr);
    EXPECT_EQ(prepare("[?\t]"), nullptr);
}

TEST(JprocPrepare, ExplicitNumberSetsTheCount) {
    jproc_ptr state = open_on("{'a': ?3, 'b': ?}", R"({"a": 30, "b": 40})");
    ASSERT_NE(state, nullptr);
    // ?3 sets the count to 4, the bare "?" then takes 4 and makes it 5.
    EXPECT_EQ(jproc_arguments(state.get()), 5);
    EXPECT_EQ(all_steps(state.get()), (steps{"-,-,-,30,40"}));
}

TEST(JprocPrepare, ALaterSmallerNumberLowersTheCountTheNextPlaceholdersContinueFrom) {
    // ?3 sets the count to 4 and ?1 lowers it to 2; the two bare "?" then
    // take 2 and 3, and the count ends at 4 (raising would have given 6).
    jproc_ptr state =
        open_on("{'a': ?3, 'b': ?1, 'c': ?, 'd': ?}", R"({"a": 30, "b": 10, "c": 20, "d": 40})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 4);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(jproc_get_integer(state.get(), 1), 10);
    EXPECT_EQ(jproc_get_integer(state.get(), 2), 20);
}

TEST(JprocPrepare, RepeatedNumberFillsOneSlotLastWriteWins) {
    jproc_ptr state = open_on("{'a': ?1, 'b': ?1}", R"({"a": 1, "b": 2})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 2);
    EXPECT_EQ(all_steps(state.get()), (steps{"-,2"}));

    jproc_ptr same = open_on("{'a': ?, 'b': ?0}", R"({"a": 1, "b": 2})");
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(jproc_arguments(same.get()), 1);
    EXPECT_EQ(all_steps(same.get()), (steps{"2"}));
}

TEST(JprocPrepare, RejectsALaterSmallerNumberThatStrandsASlot) {
    // The later "?1" would lower the count to 2 and leave slot 3 outside the
    // slot table: such patterns are refused.
    EXPECT_EQ(prepare("{'a': ?3, 'b': ?1}"), nullptr);
    EXPECT_EQ(prepare("{'a': ?, 'b': ?, 'c': ?0}"), nullptr);
    EXPECT_EQ(prepare("[{'a': ?2, 'b': [?0]}]"), nullptr);
}

TEST(JprocPrepare, CountsPlaceholdersOfAFailedMemberPattern) {
    // The member pattern "[?, ..." fails and is dropped, but its "?" already
    // took slot 1; the count stays 2 and the slot is never filled.
    jproc_ptr state = open_on("{'a': ?, 'b': [?, 'c': ?}", R"({"a": 1, "b": [2], "c": 3})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 2);
    EXPECT_EQ(all_steps(state.get()), (steps{"1,-"}));
}

TEST(JprocPrepare, RejectsNumbersTooLargeForASlot) {
    EXPECT_EQ(prepare("?2147483647"), nullptr);
    EXPECT_EQ(prepare("?99999999999999999999"), nullptr);
    EXPECT_EQ(prepare("{'a': ?2147483647}"), nullptr);
}

TEST(JprocPrepare, FailsOnEveryKindOfError) {
    const char *const broken[] = {
        "",                // end of text before any form
        "    ",            // only spaces
        "x",               // unexpected byte
        "]",               // unexpected byte
        "[",               // end of text inside an array pattern
        "[?",              // "]" missing
        "[? x]",           // unexpected byte where "]" belongs
        "[x]",             // element pattern neither valid nor empty
        "[[?]",            // inner closed, outer "]" missing
        "{",               // end of text inside an object pattern
        "{}",              // object pattern without members
        "{ }",             // still without members
        "{a: ?}",          // name not quoted
        "{'a",             // unterminated name
        "{'a'",            // end of text before ":"
        "{'a' ?}",         // ":" missing
        "{'a': ?",         // end of text before "," or "}"
        "{'a': ? junk",    // skipped to the end without "," or "}"
        "{'a': ?,",        // end of text after ","
        "{'a': ?,}",       // "}" where a member belongs
        "{'a': ?, b: ?}",  // second name not quoted
        "{'a': ?, 'b' ?}", // ":" missing in the second member
        "[{'a' ?}]",       // a failing object inside an array
        "[{'a': ?}",       // array not closed after a good object
        "{'a': [?]",       // object not closed after a good array
        "[[[[?]]]",        // one bracket short
    };
    for (const char *pattern : broken)
        EXPECT_EQ(prepare(pattern), nullptr) << '"' << pattern << '"';
    EXPECT_EQ(jproc_prepare(nullptr), nullptr);
}

TEST(JprocPrepare, FreesWhatNestedFormsBuiltWhenAnOuterFormFails) {
    // Each pattern fails only after inner forms were complete; under the
    // leak checker nothing of them may stay allocated.
    const char *const broken[] = {
        "{'a': [{'b': [?], 'c': ?}], 'd': {'e': ?}, 'f' ?}", // ":" missing last
        "[{'a': [[?]], 'b': {'c': ?}} x]",                   // "]" missing at the end
        "{'a': ?, 'b': {'c': [?], 'd': ?}",                  // outer "}" missing
        "[[[{'a': ?}]]",                                     // outermost "]" missing
        "{'a': [ ], 'b': [[ ]], 'c': {'d': [ ]}, 'e",        // unterminated last name
    };
    for (const char *pattern : broken)
        EXPECT_EQ(prepare(pattern), nullptr) << '"' << pattern << '"';
}

TEST(JprocPrepare, ToleratesAMemberWhosePatternFails) {
    // The object ends at "b", which keeps no pattern; "c" is never read.
    jproc_ptr state = prepare("{'a': ?, 'b': x, 'c': ?}");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 1);
    const jproc_member *a = state->root->u.members;
    ASSERT_NE(a, nullptr);
    const jproc_member *b = a->next;
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(b->name, "b");
    EXPECT_EQ(b->pattern, nullptr);
    EXPECT_EQ(b->next, nullptr);

    ASSERT_EQ(jproc_open_mem(state.get(), R"({"a": 1, "b": [5, 6], "c": 3})", -1), 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"1"}));
}

TEST(JprocPrepare, ToleratesAMemberWithNothingAfterTheColon) {
    jproc_ptr state = prepare("{'a': }");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_arguments(state.get()), 0);
    ASSERT_EQ(jproc_open_mem(state.get(), R"({"a": [1, 2, 3]})", -1), 0);
    // The member without pattern is skipped: one step.
    EXPECT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(jproc_step(state.get()), 0);

    EXPECT_NE(prepare("{'a':"), nullptr);
}

TEST(JprocPrepare, ToleratesEmptyBrackets) {
    jproc_ptr state = prepare("[]");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->root->kind, JPROC_PATTERN_ARRAY);
    EXPECT_EQ(state->root->u.iterator->pattern, nullptr);
    EXPECT_NE(prepare("[    ]"), nullptr);
    EXPECT_NE(prepare("{'a': [ ], 'b': ?}"), nullptr);
}

TEST(JprocPrepare, NamesMayBeEmptyOrHoldAnyByteButAQuote) {
    jproc_ptr state = open_on("{'': ?, 'first name': ?, '{[,:]}': ?}",
                              R"({"": 1, "first name": 2, "{[,:]}": 3})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1,2,3"}));
}

TEST(JprocPrepare, SkipsEverythingAfterAMemberPatternUpToTheSeparator) {
    jproc_ptr state = open_on("{'a': ? ignored text ,'b': [?] more }", R"({"a": 1, "b": [2]})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1,2"}));
}

TEST(JprocPrepare, LeavesNothingAllocatedWhenMemoryRunsOut) {
    const long allocations = qx_test::sweep_allocation_failures([](long n) {
        jproc *state = qx_test::call_with_failing_allocation(
            n, [] { return jproc_prepare("{'a': ?, 'b': [{'c': ?}], 'd': [ ]}"); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(state, nullptr) << "allocation " << n;
        }
        jproc_free(state);
    });
    // state, then per member: name, member, node (and the array's iterator),
    // then the slots.
    EXPECT_GT(allocations, 10);
}

// ---- Stepping -----------------------------------------------------------

TEST(JprocStep, ScalarMemberWithAnArrayGivesOneStepPerElement) {
    jproc_ptr state = open_on("{'name': ?, 'tags': [?]}", R"({"name": "x", "tags": ["a", "b"]})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_STREQ(jproc_get_string(state.get(), 0), "x");
    EXPECT_STREQ(jproc_get_string(state.get(), 1), "a");
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_STREQ(jproc_get_string(state.get(), 0), "x");
    EXPECT_STREQ(jproc_get_string(state.get(), 1), "b");
    EXPECT_EQ(jproc_step(state.get()), 0);
    EXPECT_EQ(jproc_step(state.get()), 0);
}

TEST(JprocStep, EmptyArrayGivesOneStepWithEmptySlot) {
    jproc_ptr state = open_on("[?]", "[]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(jproc_get_json(state.get(), 0), nullptr);
    EXPECT_EQ(jproc_step(state.get()), 0);
}

TEST(JprocStep, SiblingArraysGiveEveryCombinationLastVaryingFastest) {
    jproc_ptr state =
        open_on("{'a': [?], 'b': [?]}", R"({"a": ["a0", "a1"], "b": ["b0", "b1", "b2"]})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()),
              (steps{"a0,b0", "a0,b1", "a0,b2", "a1,b0", "a1,b1", "a1,b2"}));
}

TEST(JprocStep, ThreeSiblingArraysGiveEachCombinationExactlyOnceInOrder) {
    jproc_ptr state =
        open_on("{'x': [?], 'y': [?], 'z': [?]}", R"({"z": [5, 6, 7], "y": [3, 4], "x": [1, 2]})");
    ASSERT_NE(state, nullptr);
    steps expected;
    for (const char *x : {"1", "2"})
        for (const char *y : {"3", "4"})
            for (const char *z : {"5", "6", "7"})
                expected.push_back(std::string(x) + "," + y + "," + z);
    EXPECT_EQ(all_steps(state.get()), expected);
}

TEST(JprocStep, ArraysOfArraysBesideASiblingArrayGiveEveryCombinationOnce) {
    // "b" is listed last and turns first, then the inner and the outer array
    // of "a"; the inner arrays differ in length.
    jproc_ptr state = open_on("{'a': [[?]], 'b': [?]}", R"({"b": ["x", "y"], "a": [[1, 2], [3]]})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1,x", "1,y", "2,x", "2,y", "3,x", "3,y"}));
}

TEST(JprocStep, OrderFollowsThePatternNotTheDocument) {
    jproc_ptr state = open_on("{'b': [?], 'a': [?]}", R"({"a": [1, 2], "b": [3, 4]})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"3,1", "3,2", "4,1", "4,2"}));
}

TEST(JprocStep, InnermostArrayVariesFastest) {
    jproc_ptr state = open_on("[[?]]", "[[1, 2], [], [3]]");
    ASSERT_NE(state, nullptr);
    // The empty inner array still gives one step, with nothing in the slot.
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "2", "-", "3"}));
}

TEST(JprocStep, NestedArraysUnderObjectsWalkDepthFirst) {
    jproc_ptr state = open_on("{'hosts': [{'name': ?, 'ports': [?]}], 'zone': ?}",
                              R"({"zone": "z1", "hosts": [{"name": "h1", "ports": [22, 80]},)"
                              R"( {"name": "h2", "ports": []}, {"ports": [443]}]})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"h1,22,z1", "h1,80,z1", "h2,-,z1", "-,443,z1"}));
}

TEST(JprocStep, SlotsAreClearedBetweenSteps) {
    jproc_ptr state = open_on("[{'x': ?}]", R"([{"x": 1}, {"y": 2}, {"x": 3}])");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "-", "3"}));
}

TEST(JprocStep, PatternWithoutArraysGivesExactlyOneStep) {
    jproc_ptr state = open_on("{'a': ?, 'b': {'c': ?}}", R"({"a": [1, 2], "b": {"c": "deep"}})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(jproc_get_type(state.get(), 0), json_array);
    EXPECT_STREQ(jproc_get_string(state.get(), 1), "deep");
    EXPECT_EQ(jproc_step(state.get()), 0);
}

TEST(JprocStep, MissingArrayGivesOneStep) {
    jproc_ptr state = open_on("{'a': ?, 'list': [?]}", R"({"a": 1})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1,-"}));
}

TEST(JprocStep, ValueOfTheWrongKindIsNotWalked) {
    jproc_ptr not_array = open_on("{'list': [?]}", R"({"list": "text"})");
    ASSERT_NE(not_array, nullptr);
    EXPECT_EQ(all_steps(not_array.get()), (steps{"-"}));

    jproc_ptr not_object = open_on("[{'a': ?}]", R"([1, {"a": 2}])");
    ASSERT_NE(not_object, nullptr);
    EXPECT_EQ(all_steps(not_object.get()), (steps{"-", "2"}));

    jproc_ptr empty_object = open_on("{'a': ?}", "{}");
    ASSERT_NE(empty_object, nullptr);
    EXPECT_EQ(all_steps(empty_object.get()), (steps{"-"}));
}

TEST(JprocStep, MissingMemberLeavesItsSlotEmptyAndLaterMembersStillMatch) {
    jproc_ptr state = open_on("{'absent': ?, 'b': ?}", R"({"b": 7})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(jproc_get_json(state.get(), 0), nullptr);
    EXPECT_EQ(jproc_get_type(state.get(), 0), 0);
    EXPECT_EQ(jproc_get_integer(state.get(), 0), -1);
    EXPECT_EQ(jproc_get_string(state.get(), 0), nullptr);
    EXPECT_EQ(jproc_is_integer(state.get(), 0), 0);
    EXPECT_EQ(jproc_get_integer(state.get(), 1), 7);
    EXPECT_EQ(jproc_step(state.get()), 0);
}

TEST(JprocStep, MemberNamesMatchExactlyAndCaseSensitively) {
    jproc_ptr state = open_on("{'name': ?}", R"({"Name": 1, "nam": 2, "names": 3, "name": 4})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"4"}));
}

TEST(JprocStep, TheFirstEntryOfARepeatedNameIsUsed) {
    jproc_ptr state = open_on("{'a': ?}", R"({"a": 1, "a": 2})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1"}));
}

TEST(JprocStep, ArraysOfMixedTypesDeliverEveryElement) {
    jproc_ptr state = open_on("[?]", R"([1, "two", {"x": 1}, [2], null, true, 1.5])");
    ASSERT_NE(state, nullptr);
    const int types[] = {json_integer, json_string,  json_object, json_array,
                         json_null,    json_boolean, json_double};
    for (int type : types) {
        ASSERT_EQ(jproc_step(state.get()), 1);
        EXPECT_EQ(jproc_get_type(state.get(), 0), type);
        EXPECT_EQ(jproc_is_integer(state.get(), 0), type == json_integer ? 1 : 0);
        EXPECT_EQ(jproc_is_string(state.get(), 0), type == json_string ? 1 : 0);
        if (type != json_integer) {
            EXPECT_EQ(jproc_get_integer(state.get(), 0), -1);
        }
        if (type != json_string) {
            EXPECT_EQ(jproc_get_string(state.get(), 0), nullptr);
        }
    }
    EXPECT_EQ(jproc_step(state.get()), 0);
}

TEST(JprocStep, ArrayPatternWithoutElementPatternStepsWithoutFilling) {
    jproc_ptr state = open_on("{'n': ?, 'list': [ ]}", R"({"n": 9, "list": [1, 2, 3]})");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"9", "9", "9"}));
}

TEST(JprocStep, PlaceholderAtTheRootTakesTheWholeDocument) {
    jproc_ptr state = open_on("?", R"({"a": 1})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    json_value *root = jproc_get_json(state.get(), 0);
    EXPECT_EQ(root, state->document);
    EXPECT_EQ(jproc_get_type(state.get(), 0), json_object);
}

TEST(JprocStep, WithoutDocumentGivesOneEmptyStep) {
    jproc_ptr state = prepare("{'a': [?]}");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"-"}));
}

TEST(JprocStep, SetsTheDoneFlagWithTheLastCombination) {
    jproc_ptr state = open_on("[?]", "[1, 2]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(state->done, 0);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(state->done, 1);
    EXPECT_EQ(jproc_get_integer(state.get(), 0), 2);
    // A finished walk leaves the slots of its last step in place.
    EXPECT_EQ(jproc_step(state.get()), 0);
    EXPECT_EQ(jproc_get_integer(state.get(), 0), 2);
}

// ---- Reset and reopening ------------------------------------------------

TEST(JprocReset, StartsAgainFromTheFirstCombinationMidWalk) {
    jproc_ptr state = open_on("{'a': [?], 'b': [?]}", R"({"a": [1, 2], "b": [3, 4]})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    ASSERT_EQ(jproc_step(state.get()), 1);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(describe(state.get(), 0) + "," + describe(state.get(), 1), "2,3");
    jproc_reset(state.get());
    EXPECT_EQ(jproc_get_json(state.get(), 0), nullptr);
    EXPECT_EQ(jproc_get_json(state.get(), 1), nullptr);
    EXPECT_EQ(state->iterators, nullptr);
    EXPECT_EQ(state->root->u.members->pattern->u.iterator->index, 0u);
    EXPECT_EQ(state->root->u.members->next->pattern->u.iterator->index, 0u);
    EXPECT_EQ(all_steps(state.get()), (steps{"1,3", "1,4", "2,3", "2,4"}));
}

TEST(JprocReset, RewindsAFinishedWalk) {
    jproc_ptr state = open_on("[[?]]", "[[1], [2, 3]]");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "2", "3"}));
    jproc_reset(state.get());
    EXPECT_EQ(state->done, 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "2", "3"}));
}

TEST(JprocReset, AcceptsNull) {
    jproc_reset(nullptr);
    jproc_free(nullptr);
}

TEST(JprocOpen, ReopeningMidWalkStartsTheNewDocumentFromTheBeginning) {
    jproc_ptr state = open_on("{'a': [?]}", R"({"a": [1, 2, 3]})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    ASSERT_EQ(jproc_step(state.get()), 1);
    ASSERT_EQ(jproc_open_mem(state.get(), R"({"a": [7, 8, 9]})", -1), 0);
    EXPECT_EQ(jproc_get_json(state.get(), 0), nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"7", "8", "9"}));
    // And after the walk has finished.
    ASSERT_EQ(jproc_open_mem(state.get(), R"({"a": [4]})", -1), 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"4"}));
}

TEST(JprocOpen, JsonRootIsBorrowedAndNeverFreed) {
    json_value *tree = json_parse(R"(["p", "q"])", 10);
    ASSERT_NE(tree, nullptr);
    {
        jproc_ptr state = prepare("[?]");
        ASSERT_NE(state, nullptr);
        ASSERT_EQ(jproc_open_json(state.get(), tree), 0);
        EXPECT_EQ(state->document, tree);
        EXPECT_EQ(state->flags & JPROC_FLAG_BORROWED, JPROC_FLAG_BORROWED);
        EXPECT_EQ(all_steps(state.get()), (steps{"p", "q"}));
        // Replacing a borrowed document does not free it either.
        ASSERT_EQ(jproc_open_mem(state.get(), "[1]", -1), 0);
        EXPECT_EQ(state->flags & JPROC_FLAG_BORROWED, 0);
        ASSERT_EQ(jproc_open_json(state.get(), tree), 0);
    }
    // Still the caller's: readable and freed here (ASan would see a double
    // free or a use after free otherwise).
    EXPECT_STREQ(tree->u.array.values[1]->u.string.ptr, "q");
    json_value_free(tree);
}

TEST(JprocOpen, JsonRootReplacesAnOwnedDocument) {
    json_value *tree = json_parse("[5]", 3);
    ASSERT_NE(tree, nullptr);
    jproc_ptr state = open_on("[?]", "[1, 2]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    // The owned document is freed here; LeakSanitizer would report it.
    ASSERT_EQ(jproc_open_json(state.get(), tree), 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"5"}));
    state.reset();
    json_value_free(tree);
}

TEST(JprocOpen, JsonRootThatIsTheOwnedDocumentStaysOwned) {
    jproc_ptr state = open_on("?", "[1]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    json_value *own = jproc_get_json(state.get(), 0);
    ASSERT_EQ(jproc_open_json(state.get(), own), 0);
    EXPECT_EQ(state->document, own);
    EXPECT_EQ(state->flags & JPROC_FLAG_BORROWED, 0);
    ASSERT_EQ(jproc_step(state.get()), 1);
    EXPECT_EQ(jproc_get_json(state.get(), 0), own);
}

TEST(JprocOpen, NullJsonRootFailsAndKeepsTheDocumentRewound) {
    jproc_ptr state = open_on("[?]", "[1, 2]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    json_value *before = state->document;
    EXPECT_EQ(jproc_open_json(state.get(), nullptr), -1);
    EXPECT_EQ(state->document, before);
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "2"}));
}

TEST(JprocOpen, MemoryLengthLimitsTheText) {
    jproc_ptr state = prepare("[?]");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_open_mem(state.get(), "[1,2]trailing", 5), 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "2"}));
    EXPECT_EQ(jproc_open_mem(state.get(), "[1,2]", 3), -1);
}

TEST(JprocOpen, NegativeLengthMeansTheWholeString) {
    jproc_ptr state = prepare("[?]");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_open_mem(state.get(), "[\"only\"]", -5), 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"only"}));
}

TEST(JprocOpen, UnparsableTextLeavesNoDocument) {
    jproc_ptr state = open_on("[?]", "[1]");
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(jproc_open_mem(state.get(), "[1, ", -1), -1);
    EXPECT_EQ(state->document, nullptr);
    EXPECT_EQ(state->flags & JPROC_FLAG_BORROWED, 0);
    EXPECT_EQ(jproc_open_mem(state.get(), "", 0), -1);
    EXPECT_EQ(state->document, nullptr);
    EXPECT_EQ(all_steps(state.get()), (steps{"-"}));
}

TEST(JprocOpen, OnlyAFailedMappingPrintsAnything) {
    testing::internal::CaptureStderr();
    jproc_ptr broken = prepare("{'a' ?}");
    jproc_ptr state = prepare("[?]");
    const int bad_mem = state != nullptr ? jproc_open_mem(state.get(), "[", -1) : 0;
    const int bad_json = state != nullptr ? jproc_open_json(state.get(), nullptr) : 0;
    const int good_mem = state != nullptr ? jproc_open_mem(state.get(), "[1]", -1) : -1;
    const int first = state != nullptr ? jproc_step(state.get()) : 0;
    const int last = state != nullptr ? jproc_step(state.get()) : 1;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(broken, nullptr);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(bad_mem, -1);
    EXPECT_EQ(bad_json, -1);
    EXPECT_EQ(good_mem, 0);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(last, 0);
}

TEST(JprocOpen, UnparsableTextAfterABorrowedTreeLeavesTheTreeAlone) {
    json_value *tree = json_parse("[1]", 3);
    ASSERT_NE(tree, nullptr);
    {
        jproc_ptr state = prepare("[?]");
        ASSERT_NE(state, nullptr);
        ASSERT_EQ(jproc_open_json(state.get(), tree), 0);
        EXPECT_EQ(jproc_open_mem(state.get(), "{", -1), -1);
        EXPECT_EQ(state->document, nullptr);
        EXPECT_EQ(state->flags & JPROC_FLAG_BORROWED, 0);
    }
    EXPECT_EQ(tree->u.array.values[0]->u.integer, 1);
    json_value_free(tree);
}

TEST(JprocOpen, ParserRunningOutOfMemoryCountsAsUnparsable) {
    // Only the parser's first allocation is failed: later ones exercise the
    // parser's own clean-up, which is not this library's.
    jproc_ptr state = open_on("{'a': [?]}", R"({"a": [0]})");
    ASSERT_NE(state, nullptr);
    const int result = qx_test::call_with_failing_allocation(
        0, [&state] { return jproc_open_mem(state.get(), R"({"a": [1, 2]})", -1); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(state->document, nullptr);
    ASSERT_EQ(jproc_open_mem(state.get(), R"({"a": [1, 2]})", -1), 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "2"}));
}

TEST(JprocOpenFile, ParsesAFileAndClosesIt) {
    qx_test::temp_dir dir;
    const std::string path = dir.file("doc.json");
    qx_test::write_file(path, R"({"users": [{"id": 1, "name": "ann"}, {"id": 2, "name": "bob"}]})");
    jproc_ptr state = prepare("{'users': [{'name': ?, 'id': ?}]}");
    ASSERT_NE(state, nullptr);
    qx_test::fd_snapshot snap;
    testing::internal::CaptureStderr();
    ASSERT_EQ(jproc_open_file(state.get(), path.c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(snap.unchanged());
    EXPECT_EQ(state->flags & JPROC_FLAG_BORROWED, 0);
    EXPECT_EQ(all_steps(state.get()), (steps{"ann,1", "bob,2"}));
}

TEST(JprocOpenFile, EmptyFileFailsAtTheMappingAndPrintsTheMmapError) {
    qx_test::temp_dir dir;
    const std::string path = dir.file("empty.json");
    qx_test::write_file(path, "");
    jproc_ptr state = open_on("[?]", "[1, 2]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    json_value *before = state->document;
    qx_test::fd_snapshot snap;
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(jproc_open_file(state.get(), path.c_str()), -1);
    const int saved = errno;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mmap: Invalid argument\n");
    EXPECT_EQ(saved, EINVAL);
    EXPECT_TRUE(snap.unchanged());
    // The document was not touched, only rewound.
    EXPECT_EQ(state->document, before);
    EXPECT_EQ(all_steps(state.get()), (steps{"1", "2"}));
}

TEST(JprocOpenFile, DirectoryFailsAtTheMappingWithTheSystemError) {
    qx_test::temp_dir dir;
    jproc_ptr state = prepare("?");
    ASSERT_NE(state, nullptr);
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(jproc_open_file(state.get(), dir.path().c_str()), -1);
    const int saved = errno;
    EXPECT_NE(saved, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("mmap: ") + std::strerror(saved) + "\n");
}

TEST(JprocOpenFile, MissingFileFailsQuietlyAndKeepsTheDocument) {
    qx_test::temp_dir dir;
    jproc_ptr state = open_on("[?]", "[3]");
    ASSERT_NE(state, nullptr);
    json_value *before = state->document;
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(jproc_open_file(state.get(), dir.file("absent.json").c_str()), -1);
    const int saved = errno;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(saved, ENOENT);
    EXPECT_EQ(state->document, before);
    EXPECT_EQ(all_steps(state.get()), (steps{"3"}));
}

TEST(JprocOpenFile, UnparsableFileLeavesNoDocumentAndPrintsNothing) {
    qx_test::temp_dir dir;
    const std::string path = dir.file("bad.json");
    qx_test::write_file(path, "{\"a\": ");
    jproc_ptr state = open_on("{'a': ?}", R"({"a": 1})");
    ASSERT_NE(state, nullptr);
    qx_test::fd_snapshot snap;
    testing::internal::CaptureStderr();
    EXPECT_EQ(jproc_open_file(state.get(), path.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(snap.unchanged());
    EXPECT_EQ(state->document, nullptr);
}

// ---- Getters ------------------------------------------------------------

TEST(JprocGetters, OutOfRangeIndexesGiveTheEmptyResults) {
    jproc_ptr state = open_on("{'a': ?, 'b': ?}", R"({"a": 5, "b": ["s"]})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    unsigned int count = 99;
    for (int index : {-1, 2, 1000}) {
        EXPECT_EQ(jproc_get_json(state.get(), index), nullptr);
        EXPECT_EQ(jproc_get_type(state.get(), index), 0);
        EXPECT_EQ(jproc_is_integer(state.get(), index), 0);
        EXPECT_EQ(jproc_is_string(state.get(), index), 0);
        EXPECT_EQ(jproc_get_integer(state.get(), index), -1);
        EXPECT_EQ(jproc_get_string(state.get(), index), nullptr);
        EXPECT_EQ(jproc_get_string_array(state.get(), index, &count), nullptr);
        EXPECT_EQ(jproc_get_int_array(state.get(), index, &count), nullptr);
    }
    EXPECT_EQ(count, 99u);
    EXPECT_EQ(jproc_get_integer(state.get(), 0), 5);
}

TEST(JprocGetters, IntegerKeepsOnlyTheLow32BitsSigned) {
    jproc_ptr state =
        open_on("[?]", "[4294967297, 2147483647, 2147483648, 4294967295, -1, -4294967296]");
    ASSERT_NE(state, nullptr);
    const long expected[] = {1, 2147483647, -2147483648L, -1, -1, 0};
    for (long value : expected) {
        ASSERT_EQ(jproc_step(state.get()), 1);
        EXPECT_EQ(jproc_get_integer(state.get(), 0), value);
    }
    EXPECT_EQ(jproc_step(state.get()), 0);
}

TEST(JprocGetters, StringPointsIntoTheDocument) {
    jproc_ptr state = open_on("{'s': ?}", R"({"s": "caf\u00e9"})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    const char *text = jproc_get_string(state.get(), 0);
    EXPECT_STREQ(text, "caf\xc3\xa9");
    EXPECT_EQ(text, jproc_get_json(state.get(), 0)->u.string.ptr);
}

TEST(JprocGetters, StringArrayPointsAtTheDocumentsTexts) {
    jproc_ptr state = open_on("{'tags': ?}", R"({"tags": ["red", "", "blue"]})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    unsigned int count = 0;
    char **tags = jproc_get_string_array(state.get(), 0, &count);
    ASSERT_NE(tags, nullptr);
    EXPECT_EQ(count, 3u);
    json_value *array = jproc_get_json(state.get(), 0);
    for (unsigned int i = 0; i < 3; ++i)
        EXPECT_EQ(tags[i], array->u.array.values[i]->u.string.ptr);
    EXPECT_STREQ(tags[0], "red");
    EXPECT_STREQ(tags[1], "");
    EXPECT_STREQ(tags[2], "blue");
    EXPECT_EQ(tags[3], nullptr);
    std::free(tags);

    char **again = jproc_get_string_array(state.get(), 0, nullptr);
    ASSERT_NE(again, nullptr);
    EXPECT_STREQ(again[2], "blue");
    std::free(again);
}

TEST(JprocGetters, StringArrayOfAnEmptyArrayHoldsOnlyTheTerminator) {
    jproc_ptr state = open_on("?", "[]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    unsigned int count = 42;
    char **none = jproc_get_string_array(state.get(), 0, &count);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none[0], nullptr);
    EXPECT_EQ(count, 0u);
    std::free(none);
    json_int_t **no_ints = jproc_get_int_array(state.get(), 0, &count);
    ASSERT_NE(no_ints, nullptr);
    EXPECT_EQ(no_ints[0], nullptr);
    std::free(no_ints);
}

TEST(JprocGetters, StringArrayRefusesOtherElementsAndOtherValues) {
    jproc_ptr state = open_on("{'mixed': ?, 'text': ?, 'ints': ?}",
                              R"({"mixed": ["a", 1], "text": "a", "ints": [1, 2]})");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    unsigned int count = 77;
    EXPECT_EQ(jproc_get_string_array(state.get(), 0, &count), nullptr);
    EXPECT_EQ(jproc_get_string_array(state.get(), 1, &count), nullptr);
    EXPECT_EQ(jproc_get_string_array(state.get(), 2, &count), nullptr);
    EXPECT_EQ(count, 77u);
}

TEST(JprocGetters, IntArrayPointsAtTheDocumentsIntegers) {
    jproc_ptr state = open_on("?", "[1, 4294967297, -3]");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    unsigned int count = 0;
    json_int_t **values = jproc_get_int_array(state.get(), 0, &count);
    ASSERT_NE(values, nullptr);
    EXPECT_EQ(count, 3u);
    json_value *array = jproc_get_json(state.get(), 0);
    for (unsigned int i = 0; i < 3; ++i)
        EXPECT_EQ(values[i], &array->u.array.values[i]->u.integer);
    EXPECT_EQ(*values[0], 1);
    EXPECT_EQ(*values[1], 4294967297LL);
    EXPECT_EQ(*values[2], -3);
    EXPECT_EQ(values[3], nullptr);
    std::free(values);
}

TEST(JprocGetters, IntArrayRefusesOtherElements) {
    jproc_ptr state = open_on("?", R"([1, "2", 3])");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    unsigned int count = 5;
    EXPECT_EQ(jproc_get_int_array(state.get(), 0, &count), nullptr);
    EXPECT_EQ(count, 5u);
    jproc_ptr doubles = open_on("?", "[1.0]");
    ASSERT_EQ(jproc_step(doubles.get()), 1);
    EXPECT_EQ(jproc_get_int_array(doubles.get(), 0, nullptr), nullptr);
}

TEST(JprocGetters, ArrayGettersGiveNullWhenMemoryRunsOut) {
    jproc_ptr state = open_on("?", R"(["a", "b"])");
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(jproc_step(state.get()), 1);
    unsigned int count = 9;
    char **strings = qx_test::call_with_failing_allocation(
        0, [&] { return jproc_get_string_array(state.get(), 0, &count); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(strings, nullptr);
    EXPECT_EQ(count, 9u);
}

TEST(JprocGetters, ArgumentsIsTheSlotCount) {
    EXPECT_EQ(jproc_arguments(prepare("{'a': ?, 'b': [?], 'c': [{'d': ?}]}").get()), 3);
    EXPECT_EQ(jproc_arguments(prepare("?7").get()), 8);
    EXPECT_EQ(jproc_arguments(prepare("[ ]").get()), 0);
}

} // namespace
