#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <random>
#include <string>
#include <vector>

#include "qxcommon-util/patricia.h"
#include "support/alloc_fail.hpp"
#include "support/heap_usage.hpp"

namespace {

// Clears a tree at the end of a test whatever it holds.
struct tree_guard {
    patricia *tree;
    ~tree_guard() { patricia_clear(tree); }
};

bool is_node(const void *p) {
    return (reinterpret_cast<std::uintptr_t>(p) & 1u) != 0;
}

const patricia_node *node_of(const void *p) {
    return reinterpret_cast<const patricia_node *>(reinterpret_cast<std::uintptr_t>(p) - 1);
}

const char *leaf_of(const void *p) {
    return static_cast<const char *>(p);
}

// What a walk handed over, and when to stop.
struct collector {
    std::vector<std::string> keys;
    std::size_t stop_after = SIZE_MAX; // return `stop_value` on this many-th key
    int stop_value = 0;
};

int collect(const char *key, void *arg) {
    auto *c = static_cast<collector *>(arg);
    c->keys.emplace_back(key);
    return c->keys.size() == c->stop_after ? c->stop_value : 1;
}

std::vector<std::string> walk(const patricia &tree, const char *prefix, int *result = nullptr) {
    collector c;
    const int r = patricia_allprefixed(&tree, prefix, collect, &c);
    if (result != nullptr)
        *result = r;
    return c.keys;
}

std::vector<std::string> all_keys(const patricia &tree) {
    return walk(tree, "");
}

// Ascending order of unsigned bytes, a shorter key before its extensions:
// the order the trie's in-order walk gives. Written out byte by byte, so that
// the reference does not rest on any library comparison.
bool unsigned_bytes_less(const std::string &a, const std::string &b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const auto ca = static_cast<unsigned char>(a[i]);
        const auto cb = static_cast<unsigned char>(b[i]);
        if (ca != cb)
            return ca < cb;
    }
    return a.size() < b.size();
}

// Checks the shape of a subtree: every key under a node has the node's
// critical bit as the side it hangs on says, and the bits below the
// critical one in the same byte, and every earlier byte, are the same for
// all keys below it; (byte, bit) positions grow along every path. Returns
// the number of leaves.
struct position {
    std::uint32_t byte;
    std::uint8_t otherbits;
};

std::uint8_t byte_of(const char *key, std::uint32_t index) {
    const std::size_t len = std::strlen(key);
    return index < len ? static_cast<unsigned char>(key[index]) : 0;
}

void collect_leaves(const void *p, std::vector<const char *> *out) {
    if (!is_node(p)) {
        out->push_back(leaf_of(p));
        return;
    }
    collect_leaves(node_of(p)->child[0], out);
    collect_leaves(node_of(p)->child[1], out);
}

std::size_t check_shape(const void *p, bool has_parent, position parent) {
    if (!is_node(p)) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % sizeof(void *), 0u);
        return 1;
    }
    const patricia_node *node = node_of(p);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(node) % sizeof(void *), 0u);
    const unsigned bit = 255u ^ node->otherbits;
    EXPECT_EQ(bit & (bit - 1), 0u) << "otherbits must clear exactly one bit";
    EXPECT_NE(bit, 0u);
    if (has_parent) {
        EXPECT_TRUE(node->byte > parent.byte ||
                    (node->byte == parent.byte && node->otherbits > parent.otherbits))
            << "positions must grow along a path";
    }
    std::vector<const char *> side[2];
    for (int d = 0; d < 2; ++d) {
        collect_leaves(node->child[d], &side[d]);
        for (const char *key : side[d])
            EXPECT_EQ((byte_of(key, node->byte) & bit) != 0, d == 1) << key;
    }
    // Both sides agree on everything before the critical bit.
    const char *a = side[0].front();
    const char *b = side[1].front();
    for (std::uint32_t i = 0; i < node->byte; ++i)
        EXPECT_EQ(byte_of(a, i), byte_of(b, i));
    const unsigned higher = static_cast<std::uint8_t>(~((bit << 1) - 1));
    EXPECT_EQ(byte_of(a, node->byte) & higher, byte_of(b, node->byte) & higher);
    const position here{node->byte, node->otherbits};
    return check_shape(node->child[0], true, here) + check_shape(node->child[1], true, here);
}

std::size_t check_shape(const patricia &tree) {
    return tree.root == nullptr ? 0 : check_shape(tree.root, false, position{});
}

} // namespace

// ---- insert and contains ---------------------------------------------------

TEST(PatriciaInsert, TheSameKeyTwiceGivesTwoThenOne) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    EXPECT_EQ(patricia_insert(&tree, "abc"), 2);
    EXPECT_EQ(patricia_insert(&tree, "abc"), 1);
    EXPECT_EQ(patricia_contains(&tree, "abc"), 1);
    EXPECT_EQ(patricia_contains(&tree, "ab"), 0);
    EXPECT_EQ(all_keys(tree), std::vector<std::string>{"abc"});
}

TEST(PatriciaInsert, AKeyAlreadyPresentLeavesTheTreeAsItWas) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "b"), 2);
    ASSERT_EQ(patricia_insert(&tree, "a"), 2);
    void *root = tree.root;
    const patricia_node before = *node_of(root);
    qx_test::call_with_failing_allocation(1000, [&] { return patricia_insert(&tree, "a"); });
    EXPECT_EQ(qx_test::allocations_seen(), 0);
    EXPECT_EQ(tree.root, root);
    // Field by field: the node's padding bytes were never written.
    const patricia_node *after = node_of(root);
    EXPECT_EQ(after->child[0], before.child[0]);
    EXPECT_EQ(after->child[1], before.child[1]);
    EXPECT_EQ(after->byte, before.byte);
    EXPECT_EQ(after->otherbits, before.otherbits);
}

TEST(PatriciaInsert, TheEmptyKeyThenAGiveTwoAndTwoAndBothAreFound) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    EXPECT_EQ(patricia_insert(&tree, ""), 2);
    EXPECT_EQ(patricia_insert(&tree, "a"), 2);
    EXPECT_EQ(patricia_contains(&tree, ""), 1);
    EXPECT_EQ(patricia_contains(&tree, "a"), 1);
    EXPECT_EQ(patricia_contains(&tree, "b"), 0);
    // They part at byte 0, where "" reads 0 and 'a' (0x61) has 0x40 as its
    // most significant set bit.
    ASSERT_TRUE(is_node(tree.root));
    const patricia_node *root = node_of(tree.root);
    EXPECT_EQ(root->byte, 0u);
    EXPECT_EQ(root->otherbits, 0xBF);
    EXPECT_STREQ(leaf_of(root->child[0]), "");
    EXPECT_STREQ(leaf_of(root->child[1]), "a");
}

TEST(PatriciaInsert, TheFirstKeyBecomesTheRootAsAnAlignedCopy) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    char key[] = "first";
    ASSERT_EQ(patricia_insert(&tree, key), 2);
    ASSERT_NE(tree.root, nullptr);
    EXPECT_NE(tree.root, static_cast<void *>(key));
    EXPECT_FALSE(is_node(tree.root));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(tree.root) % sizeof(void *), 0u);
    EXPECT_STREQ(leaf_of(tree.root), "first");
    key[0] = 'F';
    EXPECT_EQ(patricia_contains(&tree, "first"), 1);
    EXPECT_EQ(patricia_contains(&tree, "First"), 0);
}

TEST(PatriciaInsert, IntoAnEmptyTreeMakesOneAllocationOfTheKeyAndItsNul) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    const int result =
        qx_test::call_with_failing_allocation(1000, [&] { return patricia_insert(&tree, "abcd"); });
    EXPECT_EQ(result, 2);
    EXPECT_EQ(qx_test::allocations_seen(), 1);
    if (qx_test::heap_bytes_available()) {
        // The sanitizer's allocator reports the size asked for.
        EXPECT_EQ(malloc_usable_size(tree.root), 5u);
    }
}

TEST(PatriciaInsert, BesideAnotherKeyAllocatesOneAlignedNodeAndOneCopy) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "x"), 2);
    const int result =
        qx_test::call_with_failing_allocation(1000, [&] { return patricia_insert(&tree, "xyz"); });
    EXPECT_EQ(result, 2);
    EXPECT_EQ(qx_test::allocations_seen(), 2);
    ASSERT_TRUE(is_node(tree.root));
    const patricia_node *node = node_of(tree.root);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(node) % sizeof(void *), 0u);
    // "x" ends where "xyz" has 'y' (0x79): byte 1, bit 0x40.
    EXPECT_EQ(node->byte, 1u);
    EXPECT_EQ(node->otherbits, 0xBF);
    EXPECT_STREQ(leaf_of(node->child[0]), "x");
    EXPECT_STREQ(leaf_of(node->child[1]), "xyz");
    if (qx_test::heap_bytes_available()) {
        EXPECT_EQ(malloc_usable_size(const_cast<patricia_node *>(node)), sizeof(patricia_node));
        EXPECT_EQ(malloc_usable_size(node->child[1]), 4u);
    }
}

TEST(PatriciaInsert, TheCriticalBitIsTheMostSignificantDifferingBit) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "k\x10"), 2);
    // 0x10 ^ 0x1f = 0x0f: the critical bit is 0x08.
    ASSERT_EQ(patricia_insert(&tree, "k\x1f"), 2);
    ASSERT_TRUE(is_node(tree.root));
    EXPECT_EQ(node_of(tree.root)->byte, 1u);
    EXPECT_EQ(node_of(tree.root)->otherbits, 0xF7);
    EXPECT_STREQ(leaf_of(node_of(tree.root)->child[0]), "k\x10");
    EXPECT_STREQ(leaf_of(node_of(tree.root)->child[1]), "k\x1f");
}

TEST(PatriciaInsert, AShorterKeyPartsFromALongerOneAtItsNul) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "ab"), 2);
    ASSERT_EQ(patricia_insert(&tree, "a"), 2);
    ASSERT_TRUE(is_node(tree.root));
    const patricia_node *node = node_of(tree.root);
    // 'b' is 0x62: its most significant bit is 0x40.
    EXPECT_EQ(node->byte, 1u);
    EXPECT_EQ(node->otherbits, 0xBF);
    EXPECT_STREQ(leaf_of(node->child[0]), "a");
    EXPECT_STREQ(leaf_of(node->child[1]), "ab");
    EXPECT_EQ(patricia_contains(&tree, "a"), 1);
    EXPECT_EQ(patricia_contains(&tree, "ab"), 1);
    EXPECT_EQ(patricia_contains(&tree, "abc"), 0);
    EXPECT_EQ(patricia_contains(&tree, ""), 0);
}

TEST(PatriciaInsert, ANodeWithAnEarlierBitGoesAboveLaterOnes) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    // 'b' 0x62 and 'c' 0x63 part at bit 0x01; 'a' 0x61 parts from them at
    // bit 0x02, which comes first, so its node becomes the root.
    ASSERT_EQ(patricia_insert(&tree, "b"), 2);
    ASSERT_EQ(patricia_insert(&tree, "c"), 2);
    ASSERT_EQ(node_of(tree.root)->otherbits, 0xFE);
    ASSERT_EQ(patricia_insert(&tree, "a"), 2);
    ASSERT_TRUE(is_node(tree.root));
    const patricia_node *root = node_of(tree.root);
    EXPECT_EQ(root->byte, 0u);
    EXPECT_EQ(root->otherbits, 0xFD);
    EXPECT_STREQ(leaf_of(root->child[0]), "a");
    ASSERT_TRUE(is_node(root->child[1]));
    const patricia_node *below = node_of(root->child[1]);
    EXPECT_EQ(below->byte, 0u);
    EXPECT_EQ(below->otherbits, 0xFE);
    EXPECT_STREQ(leaf_of(below->child[0]), "b");
    EXPECT_STREQ(leaf_of(below->child[1]), "c");
    EXPECT_EQ(check_shape(tree), 3u);
}

TEST(PatriciaInsert, ANodeWithALaterBitGoesBelowEarlierOnes) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "a"), 2);
    ASSERT_EQ(patricia_insert(&tree, "c"), 2);
    ASSERT_EQ(node_of(tree.root)->otherbits, 0xFD);
    // 'b' 0x62 descends to "c" (bit 0x02 set) and parts from it at bit 0x01.
    ASSERT_EQ(patricia_insert(&tree, "b"), 2);
    const patricia_node *root = node_of(tree.root);
    EXPECT_EQ(root->otherbits, 0xFD);
    EXPECT_STREQ(leaf_of(root->child[0]), "a");
    ASSERT_TRUE(is_node(root->child[1]));
    const patricia_node *below = node_of(root->child[1]);
    EXPECT_EQ(below->otherbits, 0xFE);
    EXPECT_STREQ(leaf_of(below->child[0]), "b");
    EXPECT_STREQ(leaf_of(below->child[1]), "c");
}

TEST(PatriciaInsert, OutOfMemoryOnAnEmptyTreeGivesZeroAndLeavesItEmpty) {
    patricia tree{nullptr};
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return patricia_insert(&tree, "k"); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(tree.root, nullptr);
}

TEST(PatriciaInsert, OutOfMemoryForTheNodeOrTheCopyGivesZeroAndLosesNothing) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    for (const char *key : {"m", "ma", "b", "z"})
        ASSERT_EQ(patricia_insert(&tree, key), 2);
    const std::vector<std::string> keys = all_keys(tree);
    void *root = tree.root;
    const long made = qx_test::sweep_allocation_failures([&](long n) {
        const std::size_t before = qx_test::heap_bytes_in_use();
        const int result =
            qx_test::call_with_failing_allocation(n, [&] { return patricia_insert(&tree, "mb"); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, 0) << "failing allocation " << n;
            EXPECT_EQ(tree.root, root);
            QX_EXPECT_HEAP_AT(before);
            EXPECT_EQ(all_keys(tree), keys);
            EXPECT_EQ(patricia_contains(&tree, "mb"), 0);
        } else {
            EXPECT_EQ(result, 2);
        }
    });
    EXPECT_EQ(made, 2);
    EXPECT_EQ(all_keys(tree), (std::vector<std::string>{"b", "m", "ma", "mb", "z"}));
}

TEST(PatriciaInsert, WhenTheCopyFailsTheNodeIsFreed) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "one"), 2);
    qx_test::free_log frees;
    const int result =
        qx_test::call_with_failing_allocation(1, [&] { return patricia_insert(&tree, "two"); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(frees.count(), 1);
    EXPECT_STREQ(leaf_of(tree.root), "one");
}

TEST(PatriciaContains, AnEmptyTreeHoldsNothing) {
    patricia tree{nullptr};
    EXPECT_EQ(patricia_contains(&tree, ""), 0);
    EXPECT_EQ(patricia_contains(&tree, "a"), 0);
}

TEST(PatriciaContains, ARootLeafIsComparedInFull) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "root"), 2);
    EXPECT_EQ(patricia_contains(&tree, "root"), 1);
    EXPECT_EQ(patricia_contains(&tree, "roo"), 0);
    EXPECT_EQ(patricia_contains(&tree, "roots"), 0);
    EXPECT_EQ(patricia_contains(&tree, "Root"), 0);
}

TEST(PatriciaContains, AKeyMatchingOnlyTheCriticalBitsIsNotFound) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "apple"), 2);
    ASSERT_EQ(patricia_insert(&tree, "apricot"), 2);
    // Same bit at the one critical position as "apple", different elsewhere.
    EXPECT_EQ(patricia_contains(&tree, "zzpzzz"), 0);
    EXPECT_EQ(patricia_contains(&tree, "ap"), 0);
    EXPECT_EQ(patricia_contains(&tree, "apple"), 1);
    EXPECT_EQ(patricia_contains(&tree, "apricot"), 1);
}

// ---- order ---------------------------------------------------------------

TEST(PatriciaAllprefixed, KeysWithBytesAtOrAbove0x80SortAfterAllAsciiKeys) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    for (const char *key : {"\xc3\xa9t\xc3\xa9", "zebra", "\x80", "~", "\x7f", "A", "\xff"})
        ASSERT_EQ(patricia_insert(&tree, key), 2);
    EXPECT_EQ(all_keys(tree), (std::vector<std::string>{"A", "zebra", "~", "\x7f", "\x80",
                                                        "\xc3\xa9t\xc3\xa9", "\xff"}));
}

TEST(PatriciaAllprefixed, AKeyComesBeforeItsExtensions) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    for (const char *key : {"ab\x01", "ab", "a", "ab\xff", ""})
        ASSERT_EQ(patricia_insert(&tree, key), 2);
    EXPECT_EQ(all_keys(tree), (std::vector<std::string>{"", "a", "ab", "ab\x01", "ab\xff"}));
}

// ---- prefix walks ----------------------------------------------------------

class PatriciaAllprefixedFourKeys : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *key : {"a", "ab", "abc", "b"})
            ASSERT_EQ(patricia_insert(&tree, key), 2);
    }
    void TearDown() override { patricia_clear(&tree); }
    patricia tree{nullptr};
};

TEST_F(PatriciaAllprefixedFourKeys, PrefixAHandsOverAAbAbcInThatOrder) {
    int result = -2;
    EXPECT_EQ(walk(tree, "a", &result), (std::vector<std::string>{"a", "ab", "abc"}));
    EXPECT_EQ(result, 1);
}

TEST_F(PatriciaAllprefixedFourKeys, PrefixCCallsNothingAndReturnsOne) {
    int result = -2;
    EXPECT_TRUE(walk(tree, "c", &result).empty());
    EXPECT_EQ(result, 1);
}

TEST_F(PatriciaAllprefixedFourKeys, TheEmptyPrefixHandsOverAllFour) {
    int result = -2;
    EXPECT_EQ(walk(tree, "", &result), (std::vector<std::string>{"a", "ab", "abc", "b"}));
    EXPECT_EQ(result, 1);
}

TEST_F(PatriciaAllprefixedFourKeys, APrefixLongerThanEveryKeyMatchesNothing) {
    int result = -2;
    EXPECT_TRUE(walk(tree, "abcd", &result).empty());
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(walk(tree, "ba", &result).empty());
    EXPECT_EQ(result, 1);
}

TEST_F(PatriciaAllprefixedFourKeys, APrefixEqualToAKeyIncludesIt) {
    EXPECT_EQ(walk(tree, "ab"), (std::vector<std::string>{"ab", "abc"}));
    EXPECT_EQ(walk(tree, "abc"), std::vector<std::string>{"abc"});
    EXPECT_EQ(walk(tree, "b"), std::vector<std::string>{"b"});
}

TEST_F(PatriciaAllprefixedFourKeys, AHandlerReturningZeroOnTheFirstKeyStopsTheWalk) {
    collector c;
    c.stop_after = 1;
    c.stop_value = 0;
    EXPECT_EQ(patricia_allprefixed(&tree, "a", collect, &c), 0);
    EXPECT_EQ(c.keys, std::vector<std::string>{"a"});
    collector all;
    all.stop_after = 1;
    EXPECT_EQ(patricia_allprefixed(&tree, "", collect, &all), 0);
    EXPECT_EQ(all.keys, std::vector<std::string>{"a"});
}

TEST_F(PatriciaAllprefixedFourKeys, AHandlerReturningZeroLaterStopsTheWalkThere) {
    collector c;
    c.stop_after = 2;
    c.stop_value = 0;
    EXPECT_EQ(patricia_allprefixed(&tree, "", collect, &c), 0);
    EXPECT_EQ(c.keys, (std::vector<std::string>{"a", "ab"}));
}

TEST_F(PatriciaAllprefixedFourKeys, AnyOtherHandlerResultUnderANodeGivesMinusOne) {
    for (int value : {7, -1, 2, -7}) {
        collector c;
        c.stop_after = 1;
        c.stop_value = value;
        EXPECT_EQ(patricia_allprefixed(&tree, "a", collect, &c), -1) << value;
        EXPECT_EQ(c.keys, std::vector<std::string>{"a"}) << value;
    }
    collector late;
    late.stop_after = 3;
    late.stop_value = 42;
    EXPECT_EQ(patricia_allprefixed(&tree, "", collect, &late), -1);
    EXPECT_EQ(late.keys, (std::vector<std::string>{"a", "ab", "abc"}));
}

TEST_F(PatriciaAllprefixedFourKeys, ASingleMatchingKeyPassesTheHandlersResultBackAsItIs) {
    for (int value : {7, 0, -1, 1, 255}) {
        collector c;
        c.stop_after = 1;
        c.stop_value = value;
        EXPECT_EQ(patricia_allprefixed(&tree, "abc", collect, &c), value);
        EXPECT_EQ(c.keys, std::vector<std::string>{"abc"});
    }
}

TEST_F(PatriciaAllprefixedFourKeys, TheArgumentReachesTheHandlerUnchanged) {
    struct seen {
        int calls = 0;
        const void *self = nullptr;
        bool same_arg = true;
    } s;
    s.self = &s;
    auto handler = [](const char *, void *arg) {
        auto *p = static_cast<seen *>(arg);
        p->same_arg = p->same_arg && p->self == arg;
        ++p->calls;
        return 1;
    };
    EXPECT_EQ(patricia_allprefixed(&tree, "", handler, &s), 1);
    EXPECT_EQ(s.calls, 4);
    EXPECT_TRUE(s.same_arg);
}

TEST(PatriciaAllprefixed, AnEmptyTreeReturnsOneWithoutCallingTheHandler) {
    patricia tree{nullptr};
    int result = -2;
    EXPECT_TRUE(walk(tree, "", &result).empty());
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(walk(tree, "x", &result).empty());
    EXPECT_EQ(result, 1);
}

TEST(PatriciaAllprefixed, ASingleRootLeafIsHandedOverWhenItMatches) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, "solo"), 2);
    EXPECT_EQ(walk(tree, ""), std::vector<std::string>{"solo"});
    EXPECT_EQ(walk(tree, "so"), std::vector<std::string>{"solo"});
    EXPECT_TRUE(walk(tree, "sx").empty());
    EXPECT_TRUE(walk(tree, "solos").empty());
    collector c;
    c.stop_after = 1;
    c.stop_value = 7;
    EXPECT_EQ(patricia_allprefixed(&tree, "s", collect, &c), 7);
}

TEST(PatriciaAllprefixed, ThePrefixReachesKeysDeepBelowItsOwnBytes) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    // Keys that part inside the prefix's bytes and keys that part after it.
    for (const char *key : {"pa", "pb", "pbx", "pby", "pbyz", "pc", "qb"})
        ASSERT_EQ(patricia_insert(&tree, key), 2);
    EXPECT_EQ(walk(tree, "pb"), (std::vector<std::string>{"pb", "pbx", "pby", "pbyz"}));
    EXPECT_EQ(walk(tree, "pby"), (std::vector<std::string>{"pby", "pbyz"}));
    EXPECT_EQ(walk(tree, "p"), (std::vector<std::string>{"pa", "pb", "pbx", "pby", "pbyz", "pc"}));
    EXPECT_TRUE(walk(tree, "pd").empty());
    EXPECT_TRUE(walk(tree, "pbz").empty());
}

// ---- delete ----------------------------------------------------------------

TEST(PatriciaDelete, TheOnlyKeyEmptiesTheTree) {
    patricia tree{nullptr};
    ASSERT_EQ(patricia_insert(&tree, "only"), 2);
    qx_test::free_log frees;
    void *leaf = tree.root;
    EXPECT_EQ(patricia_delete(&tree, "only"), 1);
    EXPECT_EQ(tree.root, nullptr);
    EXPECT_EQ(frees.count(), 1);
    EXPECT_TRUE(frees.freed(leaf));
    EXPECT_EQ(patricia_contains(&tree, "only"), 0);
}

TEST(PatriciaDelete, AMissingKeyReturnsZeroAndChangesNothing) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    EXPECT_EQ(patricia_delete(&tree, "x"), 0);
    EXPECT_EQ(tree.root, nullptr);
    ASSERT_EQ(patricia_insert(&tree, "x"), 2);
    void *leaf = tree.root;
    EXPECT_EQ(patricia_delete(&tree, "y"), 0);
    EXPECT_EQ(patricia_delete(&tree, ""), 0);
    EXPECT_EQ(tree.root, leaf);
    for (const char *key : {"xa", "xb", "b"})
        ASSERT_EQ(patricia_insert(&tree, key), 2);
    void *root = tree.root;
    const std::vector<std::string> keys = all_keys(tree);
    qx_test::free_log frees;
    for (const char *key : {"", "xc", "x\xff", "xa\x01", "c", "xaa"})
        EXPECT_EQ(patricia_delete(&tree, key), 0) << key;
    EXPECT_EQ(frees.count(), 0);
    EXPECT_EQ(tree.root, root);
    EXPECT_EQ(all_keys(tree), keys);
    EXPECT_EQ(check_shape(tree), 4u);
}

TEST(PatriciaDelete, FreesTheStoredCopyAndOneNodeAndKeepsTheSibling) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    for (const char *key : {"a", "b", "c"})
        ASSERT_EQ(patricia_insert(&tree, key), 2);
    // Root: bit 0x02 with "a" on side 0 and the node of "b" and "c" on side 1.
    const patricia_node *root = node_of(tree.root);
    ASSERT_TRUE(is_node(root->child[1]));
    const patricia_node *inner = node_of(root->child[1]);
    void *leaf_b = inner->child[0];
    void *leaf_c = inner->child[1];
    qx_test::free_log frees;
    EXPECT_EQ(patricia_delete(&tree, "b"), 1);
    EXPECT_EQ(frees.count(), 2);
    EXPECT_TRUE(frees.freed(leaf_b));
    EXPECT_TRUE(frees.freed(inner));
    // The sibling leaf takes the removed node's slot.
    EXPECT_EQ(node_of(tree.root)->child[1], leaf_c);
    EXPECT_EQ(all_keys(tree), (std::vector<std::string>{"a", "c"}));
}

TEST(PatriciaDelete, RemovingAChildOfTheRootLeavesTheOtherAsRoot) {
    patricia tree{nullptr};
    tree_guard g{&tree};
    ASSERT_EQ(patricia_insert(&tree, ""), 2);
    ASSERT_EQ(patricia_insert(&tree, "z"), 2);
    void *leaf_z = node_of(tree.root)->child[1];
    EXPECT_EQ(patricia_delete(&tree, ""), 1);
    EXPECT_EQ(tree.root, leaf_z);
    EXPECT_EQ(patricia_contains(&tree, ""), 0);
    EXPECT_EQ(patricia_insert(&tree, ""), 2);
    EXPECT_EQ(all_keys(tree), (std::vector<std::string>{"", "z"}));
}

// ---- clear -----------------------------------------------------------------

TEST(PatriciaClear, OnAnEmptyTreeIsHarmless) {
    patricia tree{nullptr};
    qx_test::free_log frees;
    patricia_clear(&tree);
    EXPECT_EQ(tree.root, nullptr);
    EXPECT_EQ(frees.count(), 0);
    patricia_clear(&tree);
    EXPECT_EQ(tree.root, nullptr);
}

TEST(PatriciaClear, FreesEveryKeyAndNodeAndEmptiesTheTree) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    patricia tree{nullptr};
    const char *keys[] = {"", "a", "ab", "abc", "b", "\xff", "\x80z"};
    for (const char *key : keys)
        ASSERT_EQ(patricia_insert(&tree, key), 2);
    {
        qx_test::free_log frees;
        patricia_clear(&tree);
        // Seven copies and six internal nodes.
        EXPECT_EQ(frees.count(), 13);
    }
    EXPECT_EQ(tree.root, nullptr);
    QX_EXPECT_HEAP_AT(before);
    EXPECT_EQ(patricia_contains(&tree, "a"), 0);
    EXPECT_EQ(patricia_insert(&tree, "a"), 2);
    patricia_clear(&tree);
}

// ---- against a sorted array ------------------------------------------------

namespace {

// The reference: the stored keys in a vector kept sorted by
// unsigned_bytes_less.
class sorted_reference {
  public:
    bool contains(const std::string &key) const {
        return std::binary_search(keys_.begin(), keys_.end(), key, unsigned_bytes_less);
    }
    bool insert(const std::string &key) {
        auto at = std::lower_bound(keys_.begin(), keys_.end(), key, unsigned_bytes_less);
        if (at != keys_.end() && *at == key)
            return false;
        keys_.insert(at, key);
        return true;
    }
    bool erase(const std::string &key) {
        auto at = std::lower_bound(keys_.begin(), keys_.end(), key, unsigned_bytes_less);
        if (at == keys_.end() || *at != key)
            return false;
        keys_.erase(at);
        return true;
    }
    std::vector<std::string> prefixed(const std::string &prefix) const {
        std::vector<std::string> out;
        for (const std::string &key : keys_)
            if (key.compare(0, prefix.size(), prefix) == 0 && key.size() >= prefix.size())
                out.push_back(key);
        return out;
    }
    const std::vector<std::string> &keys() const { return keys_; }

  private:
    std::vector<std::string> keys_;
};

// Short keys over a small alphabet, so that keys share prefixes and part at
// every bit; bytes at and above 0x80 included.
std::string random_key(std::mt19937 &rng) {
    static const unsigned char alphabet[] = {'a',  'b',  'c',  '0',  0x01,
                                             0x7f, 0x80, 0xc3, 0xfe, 0xff};
    std::uniform_int_distribution<int> length(0, 6);
    std::uniform_int_distribution<std::size_t> pick(0, sizeof alphabet - 1);
    std::string key;
    const int n = length(rng);
    for (int i = 0; i < n; ++i)
        key.push_back(static_cast<char>(alphabet[pick(rng)]));
    return key;
}

void expect_same_prefix_walk(const patricia &tree, const sorted_reference &ref,
                             const std::string &prefix, std::mt19937 &rng) {
    const std::vector<std::string> expected = ref.prefixed(prefix);
    int result = -2;
    EXPECT_EQ(walk(tree, prefix.c_str(), &result), expected);
    EXPECT_EQ(result, 1);
    if (expected.empty())
        return;
    // A handler that stops on the k-th key: nothing after it is handed over.
    std::uniform_int_distribution<std::size_t> which(1, expected.size());
    collector c;
    c.stop_after = which(rng);
    c.stop_value = (c.stop_after % 2 == 0) ? 0 : 9;
    const int stopped = patricia_allprefixed(&tree, prefix.c_str(), collect, &c);
    EXPECT_EQ(c.keys, std::vector<std::string>(expected.begin(),
                                               expected.begin() + static_cast<long>(c.stop_after)));
    if (c.stop_value == 0)
        EXPECT_EQ(stopped, 0);
    else
        EXPECT_EQ(stopped, expected.size() == 1 ? 9 : -1);
}

} // namespace

TEST(PatriciaDifferential, TheReferenceIsInStrcmpOrder) {
    std::mt19937 rng(7);
    sorted_reference ref;
    for (int i = 0; i < 2000; ++i)
        ref.insert(random_key(rng));
    const auto &keys = ref.keys();
    ASSERT_GT(keys.size(), 1000u);
    EXPECT_TRUE(ref.contains(""));
    for (std::size_t i = 1; i < keys.size(); ++i)
        EXPECT_LT(std::strcmp(keys[i - 1].c_str(), keys[i].c_str()), 0);
}

TEST(PatriciaDifferential, RandomInsertsDeletesAndWalksAgreeWithASortedArray) {
    std::mt19937 rng(20261124);
    patricia tree{nullptr};
    tree_guard g{&tree};
    sorted_reference ref;
    std::uniform_int_distribution<int> op(0, 9);
    for (int round = 0; round < 20000; ++round) {
        const std::string key = random_key(rng);
        const int what = op(rng);
        if (what < 5) {
            const bool fresh = ref.insert(key);
            ASSERT_EQ(patricia_insert(&tree, key.c_str()), fresh ? 2 : 1) << round;
        } else if (what < 8) {
            const bool present = ref.erase(key);
            ASSERT_EQ(patricia_delete(&tree, key.c_str()), present ? 1 : 0) << round;
        } else {
            ASSERT_EQ(patricia_contains(&tree, key.c_str()), ref.contains(key) ? 1 : 0) << round;
        }
        if (round % 500 == 0) {
            ASSERT_EQ(check_shape(tree), ref.keys().size());
            for (int i = 0; i < 40; ++i)
                expect_same_prefix_walk(tree, ref, random_key(rng).substr(0, 3), rng);
            expect_same_prefix_walk(tree, ref, "", rng);
        }
    }
    ASSERT_GT(ref.keys().size(), 1000u);
    EXPECT_EQ(all_keys(tree), ref.keys());
    EXPECT_EQ(check_shape(tree), ref.keys().size());
    for (const std::string &key : ref.keys())
        EXPECT_EQ(patricia_contains(&tree, key.c_str()), 1);
    // Prefixes of every length up to beyond the longest key.
    for (int i = 0; i < 300; ++i)
        expect_same_prefix_walk(tree, ref, random_key(rng), rng);
    // Empty it key by key in random order.
    std::vector<std::string> keys = ref.keys();
    std::shuffle(keys.begin(), keys.end(), rng);
    for (const std::string &key : keys) {
        ASSERT_EQ(patricia_delete(&tree, key.c_str()), 1);
        ASSERT_EQ(patricia_delete(&tree, key.c_str()), 0);
    }
    EXPECT_EQ(tree.root, nullptr);
}

TEST(PatriciaDifferential, FailedInsertsLoseNothing) {
    std::mt19937 rng(99);
    patricia tree{nullptr};
    tree_guard g{&tree};
    sorted_reference ref;
    for (int i = 0; i < 3000; ++i) {
        const std::string key = random_key(rng);
        ASSERT_EQ(patricia_insert(&tree, key.c_str()), ref.insert(key) ? 2 : 1);
    }
    for (int i = 0; i < 300; ++i) {
        const std::string key = random_key(rng) + random_key(rng);
        const bool fresh = !ref.contains(key);
        const std::size_t before = qx_test::heap_bytes_in_use();
        const int result = qx_test::call_with_failing_allocation(
            i % 2, [&] { return patricia_insert(&tree, key.c_str()); });
        if (fresh) {
            EXPECT_TRUE(qx_test::allocation_was_failed());
            EXPECT_EQ(result, 0) << i;
            QX_EXPECT_HEAP_AT(before);
        } else {
            EXPECT_FALSE(qx_test::allocation_was_failed());
            EXPECT_EQ(result, 1);
        }
        EXPECT_EQ(patricia_contains(&tree, key.c_str()), fresh ? 0 : 1);
    }
    EXPECT_EQ(all_keys(tree), ref.keys());
    EXPECT_EQ(check_shape(tree), ref.keys().size());
}
