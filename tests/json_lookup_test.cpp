// Lookups by member name, observed through <qxcommon-util/json_lookup.h>.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include <qxcommon-util/json_lookup.h>

#include "support/alloc_fail.hpp"

namespace {

struct json_deleter {
    void operator()(json_value *value) const { json_value_free(value); }
};
using json_ptr = std::unique_ptr<json_value, json_deleter>;

json_ptr parse(const char *text) {
    json_ptr tree(json_parse(text, std::strlen(text)));
    EXPECT_NE(tree, nullptr) << text;
    return tree;
}

// The value of the i-th entry of an object.
json_value *entry(json_value *object, unsigned int i) {
    return object->u.object.values[i].value;
}

TEST(JsonGetValueByName, NestedMatchInAnEarlierMemberWinsOverALaterDirectMember) {
    json_ptr doc = parse(R"({"outer": {"id": 1}, "id": 2})");
    json_value *found = json_get_value_by_name(doc.get(), "id");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found, entry(entry(doc.get(), 0), 0));
    EXPECT_EQ(found->type, json_integer);
    EXPECT_EQ(found->u.integer, 1);
}

TEST(JsonGetValueByName, LooksAtTheNameBeforeInsideTheValue) {
    json_ptr doc = parse(R"({"a": {"a": 2}})");
    json_value *found = json_get_value_by_name(doc.get(), "a");
    EXPECT_EQ(found, entry(doc.get(), 0));
    EXPECT_EQ(found->type, json_object);
}

TEST(JsonGetValueByName, SearchesAnEarlierSubtreeCompletelyFirst) {
    json_ptr doc = parse(R"({"first": {"deep": {"deeper": {"k": "nested"}}}, "k": "direct"})");
    json_value *found = json_get_value_by_name(doc.get(), "k");
    ASSERT_NE(found, nullptr);
    ASSERT_EQ(found->type, json_string);
    EXPECT_STREQ(found->u.string.ptr, "nested");
}

TEST(JsonGetValueByName, FindsANameOnlyInsideAnArrayOfObjectsInTheFirstElementHoldingIt) {
    json_ptr doc =
        parse(R"({"list": [{"x": 1}, {"name": "first"}, {"name": "second"}], "tail": {}})");
    json_value *found = json_get_value_by_name(doc.get(), "name");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found, entry(doc.get(), 0)->u.array.values[1]->u.object.values[0].value);
    EXPECT_STREQ(found->u.string.ptr, "first");
}

TEST(JsonGetValueByName, SearchesArraysElementByElementAtAnyDepth) {
    json_ptr doc = parse(R"([[1, [{"k": "inner"}]], {"k": "later"}])");
    json_value *found = json_get_value_by_name(doc.get(), "k");
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->u.string.ptr, "inner");
}

TEST(JsonGetValueByName, ComparesNamesExactlyAndCaseSensitively) {
    json_ptr doc = parse(R"({"ID": 1, "i": 2, "idx": 3, "": 4, "id": 5})");
    json_value *found = json_get_value_by_name(doc.get(), "id");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->u.integer, 5);
    json_value *empty = json_get_value_by_name(doc.get(), "");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->u.integer, 4);
}

TEST(JsonGetValueByName, MissingNameGivesNull) {
    json_ptr doc = parse(R"({"a": {"b": [1, {"c": 2}]}, "d": "e"})");
    EXPECT_EQ(json_get_value_by_name(doc.get(), "missing"), nullptr);
    // A string's text is not a name.
    EXPECT_EQ(json_get_value_by_name(doc.get(), "e"), nullptr);
}

TEST(JsonGetValueByName, ValuesThatAreNeitherObjectNorArrayHoldNoNames) {
    for (const char *text : {"\"id\"", "42", "true", "null", "1.5", "{}", "[]"}) {
        json_ptr doc = parse(text);
        EXPECT_EQ(json_get_value_by_name(doc.get(), "id"), nullptr) << text;
    }
}

TEST(JsonGetValueByName, FindsAMemberWhoseValueIsNull) {
    json_ptr doc = parse(R"({"a": null})");
    json_value *found = json_get_value_by_name(doc.get(), "a");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->type, json_null);
}

TEST(JsonGetValueByNameEx, FollowsEachNameBelowThePreviousResult) {
    json_ptr doc = parse(R"({"server": {"port": 25}, "client": {"port": 26}})");
    json_value *client_port = json_get_value_by_name_ex(doc.get(), "client", "port", (char *)NULL);
    ASSERT_NE(client_port, nullptr);
    EXPECT_EQ(client_port, entry(entry(doc.get(), 1), 0));
    EXPECT_EQ(client_port->u.integer, 26);
    json_value *first_port = json_get_value_by_name_ex(doc.get(), "port", (char *)NULL);
    ASSERT_NE(first_port, nullptr);
    EXPECT_EQ(first_port->u.integer, 25);
}

TEST(JsonGetValueByNameEx, EachStepSearchesAtAnyDepth) {
    json_ptr doc = parse(R"({"a": {"x": [{"y": {"b": 5}}]}, "b": 6})");
    json_value *found = json_get_value_by_name_ex(doc.get(), "a", "b", (char *)NULL);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->u.integer, 5);
}

TEST(JsonGetValueByNameEx, EmptyListGivesTheValueItself) {
    json_ptr doc = parse(R"({"a": 1})");
    EXPECT_EQ(json_get_value_by_name_ex(doc.get(), (char *)NULL), doc.get());
    EXPECT_EQ(json_get_value_by_name_ex(nullptr, (char *)NULL), nullptr);
}

TEST(JsonGetValueByNameEx, MissingFirstNameEndsTheWalkWithNull) {
    // "b" exists at the top, but the walk never gets to it.
    json_ptr doc = parse(R"({"a": {"b": 1}, "b": 2})");
    EXPECT_EQ(json_get_value_by_name_ex(doc.get(), "missing", "b", (char *)NULL), nullptr);
}

TEST(JsonGetValueByNameEx, MissingLaterNameGivesNull) {
    json_ptr doc = parse(R"({"a": {"b": 1}, "c": 2})");
    // "c" exists, but not below "a".
    EXPECT_EQ(json_get_value_by_name_ex(doc.get(), "a", "c", (char *)NULL), nullptr);
    EXPECT_EQ(json_get_value_by_name_ex(doc.get(), "a", "b", "z", (char *)NULL), nullptr);
}

TEST(JsonGetValueByNameEx, NullStartGivesNull) {
    EXPECT_EQ(json_get_value_by_name_ex(nullptr, "a", (char *)NULL), nullptr);
    EXPECT_EQ(json_get_string_by_name_ex(nullptr, "a", (char *)NULL), nullptr);
}

TEST(JsonGetStringByName, GivesTheTextInsideTheTree) {
    json_ptr doc = parse(R"({"meta": {"owner": "ops", "size": 3}})");
    char *owner = json_get_string_by_name(doc.get(), "owner");
    ASSERT_NE(owner, nullptr);
    EXPECT_STREQ(owner, "ops");
    EXPECT_EQ(owner, entry(entry(doc.get(), 0), 0)->u.string.ptr);
}

TEST(JsonGetStringByName, NonStringOrMissingGivesNull) {
    json_ptr doc = parse(R"({"n": 3, "o": {"x": "y"}, "l": ["s"], "z": null})");
    EXPECT_EQ(json_get_string_by_name(doc.get(), "n"), nullptr);
    EXPECT_EQ(json_get_string_by_name(doc.get(), "o"), nullptr);
    EXPECT_EQ(json_get_string_by_name(doc.get(), "l"), nullptr);
    EXPECT_EQ(json_get_string_by_name(doc.get(), "z"), nullptr);
    EXPECT_EQ(json_get_string_by_name(doc.get(), "missing"), nullptr);
    EXPECT_STREQ(json_get_string_by_name(doc.get(), "x"), "y");
}

TEST(JsonGetStringByNameEx, RequiresTheFinalValueToBeAString) {
    json_ptr doc = parse(R"({"db": {"user": "app", "port": 5432}, "user": "root"})");
    EXPECT_STREQ(json_get_string_by_name_ex(doc.get(), "db", "user", (char *)NULL), "app");
    EXPECT_EQ(json_get_string_by_name_ex(doc.get(), "db", "port", (char *)NULL), nullptr);
    EXPECT_EQ(json_get_string_by_name_ex(doc.get(), "db", (char *)NULL), nullptr);
    EXPECT_EQ(json_get_string_by_name_ex(doc.get(), "nothing", "user", (char *)NULL), nullptr);
    json_value *user = json_get_value_by_name(doc.get(), "user");
    EXPECT_STREQ(json_get_string_by_name_ex(user, (char *)NULL), "app");
}

TEST(JsonGetIntByName, StoresAnInteger) {
    json_ptr doc = parse(R"({"a": {"count": -5}, "big": 4294967297, "top": 2147483648})");
    int value = 99;
    EXPECT_EQ(json_get_int_by_name(doc.get(), "count", &value), 0);
    EXPECT_EQ(value, -5);
    // Only the low 32 bits, as a signed int.
    EXPECT_EQ(json_get_int_by_name(doc.get(), "big", &value), 0);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(json_get_int_by_name(doc.get(), "top", &value), 0);
    EXPECT_EQ(value, -2147483647 - 1);
}

TEST(JsonGetIntByName, StoresTheNumberOfAString) {
    json_ptr doc = parse(R"({"s": "42", "neg": " -17 apples", "huge": "99999999999"})");
    int value = 0;
    EXPECT_EQ(json_get_int_by_name(doc.get(), "s", &value), 0);
    EXPECT_EQ(value, 42);
    EXPECT_EQ(json_get_int_by_name(doc.get(), "neg", &value), 0);
    EXPECT_EQ(value, -17);
    // 99999999999 - 23 * 2^32: the long is narrowed to int.
    EXPECT_EQ(json_get_int_by_name(doc.get(), "huge", &value), 0);
    EXPECT_EQ(value, 1215752191);
}

TEST(JsonGetIntByName, TextThatIsNotANumberStoresZeroAndSucceeds) {
    json_ptr doc = parse(R"({"word": "many", "empty": ""})");
    int value = 7;
    EXPECT_EQ(json_get_int_by_name(doc.get(), "word", &value), 0);
    EXPECT_EQ(value, 0);
    value = 7;
    EXPECT_EQ(json_get_int_by_name(doc.get(), "empty", &value), 0);
    EXPECT_EQ(value, 0);
}

TEST(JsonGetIntByName, OtherTypesOrNothingFoundLeaveTheResultAlone) {
    json_ptr doc =
        parse(R"({"flag": true, "ratio": 1.5, "none": null, "list": [1], "obj": {"x": 1}})");
    for (const char *name : {"flag", "ratio", "none", "list", "obj", "missing"}) {
        int value = 1234;
        EXPECT_EQ(json_get_int_by_name(doc.get(), name, &value), -1) << name;
        EXPECT_EQ(value, 1234) << name;
    }
    EXPECT_EQ(json_get_int_by_name(doc.get(), "x", nullptr), -1);
}

TEST(JsonLookup, NeverAllocates) {
    json_ptr doc = parse(R"({"a": [{"b": {"c": "12"}}], "d": 4})");
    json_value *found;
    char *text;
    int status;
    int value = 0;
    long seen;
    {
        qx_test::failing_allocation every(0, true);
        found = json_get_value_by_name(doc.get(), "c");
        text = json_get_string_by_name_ex(doc.get(), "a", "b", "c", (char *)NULL);
        status = json_get_int_by_name(doc.get(), "c", &value);
        seen = qx_test::allocations_seen();
    }
    EXPECT_EQ(seen, 0);
    EXPECT_NE(found, nullptr);
    EXPECT_STREQ(text, "12");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(value, 12);
}

} // namespace
