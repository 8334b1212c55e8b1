// The patricia trie driven by an operation script, against a std::set of
// the keys: the results of insert, delete and contains, the keys handed to
// patricia_allprefixed (exactly those beginning with the prefix, in strcmp
// order, stopping where the handler stops) and its result, and after every
// step the shape of the trie (tagged pointers, critical positions rising
// along every path, leaves in ascending order). patricia_clear at the end
// must leave an empty tree and nothing allocated.
// Input: operations of one byte each (the low two bits pick insert, delete,
// contains or a prefix walk) followed by a key: a length byte (0-7) and
// that many bytes (a NUL byte reads as 0x80). A walk takes one more byte:
// how many keys the handler accepts and what it returns then.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/patricia.h"

using qx_fuzz::check;

namespace {

bool is_node(const void *p) {
    return (reinterpret_cast<std::uintptr_t>(p) & 1u) != 0;
}

const patricia_node *node_of(const void *p) {
    return reinterpret_cast<const patricia_node *>(reinterpret_cast<std::uintptr_t>(p) - 1);
}

// Walks the trie in order, collecting the leaves and checking each node:
// otherbits has exactly one bit clear, and every node lies at a later
// critical position than its parent.
void collect(const void *p, long parent_byte, int parent_bits, std::vector<std::string> &out) {
    check(p != nullptr, "NULL child");
    if (!is_node(p)) {
        check(reinterpret_cast<std::uintptr_t>(p) % sizeof(void *) == 0, "leaf not aligned");
        out.emplace_back(static_cast<const char *>(p));
        return;
    }
    const patricia_node *n = node_of(p);
    const unsigned bit = static_cast<unsigned>(n->otherbits) ^ 255u;
    check(bit != 0 && (bit & (bit - 1)) == 0, "otherbits without exactly one clear bit");
    check(static_cast<long>(n->byte) > parent_byte ||
              (static_cast<long>(n->byte) == parent_byte && n->otherbits > parent_bits),
          "critical positions do not rise along a path");
    const std::size_t before = out.size();
    collect(n->child[0], n->byte, n->otherbits, out);
    const std::size_t middle = out.size();
    collect(n->child[1], n->byte, n->otherbits, out);
    // The critical bit is clear in child 0's keys and set in child 1's.
    for (std::size_t i = before; i < out.size(); ++i) {
        const std::string &k = out[i];
        const unsigned c = n->byte < k.size() ? static_cast<unsigned char>(k[n->byte]) : 0u;
        check(((c & bit) != 0) == (i >= middle), "key on the wrong side of its node");
    }
}

struct walk_state {
    std::vector<std::string> seen;
    std::size_t accept;
    int then;
};

int handler(const char *key, void *arg) {
    auto *w = static_cast<walk_state *>(arg);
    w->seen.emplace_back(key);
    return w->seen.size() <= w->accept ? 1 : w->then;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    patricia tree{};
    std::set<std::string> keys;
    std::size_t pos = 0;
    for (int steps = 0; pos < size && steps < 128; ++steps) {
        const std::uint8_t op = data[pos++];
        std::string key;
        const std::size_t len = pos < size ? data[pos++] % 8 : 0;
        for (std::size_t k = 0; k < len && pos < size; ++k) {
            const char c = static_cast<char>(data[pos++]);
            key.push_back(c == '\0' ? '\x80' : c);
        }
        switch (op % 4) {
        case 0: {
            const bool fresh = keys.insert(key).second;
            check(patricia_insert(&tree, key.c_str()) == (fresh ? 2 : 1), "insert result");
            break;
        }
        case 1: {
            const bool present = keys.erase(key) != 0;
            check(patricia_delete(&tree, key.c_str()) == (present ? 1 : 0), "delete result");
            break;
        }
        case 2:
            check(patricia_contains(&tree, key.c_str()) == (keys.count(key) != 0 ? 1 : 0),
                  "contains result");
            break;
        default: {
            const std::uint8_t how = pos < size ? data[pos++] : 0xFF;
            static const int results[4] = {0, 1, 7, -1};
            walk_state w{{}, how % 16u, results[(how >> 4) % 4]};
            std::vector<std::string> matching;
            for (const std::string &k : keys)
                if (k.compare(0, key.size(), key) == 0 && k.size() >= key.size())
                    matching.push_back(k);
            int want = 1;
            std::size_t handed = matching.size();
            if (matching.size() == 1) {
                want = w.accept >= 1 ? 1 : w.then; // a single leaf passes its result on
                handed = 1;
            } else if (matching.size() > w.accept) {
                handed = w.accept + 1;
                want = w.then == 1 ? 1 : w.then == 0 ? 0 : -1;
                if (w.then == 1)
                    handed = matching.size();
            }
            const int got = patricia_allprefixed(&tree, key.c_str(), handler, &w);
            check(got == want, "allprefixed result");
            check(w.seen.size() == handed, "allprefixed handed a wrong number of keys");
            for (std::size_t i = 0; i < handed; ++i)
                check(w.seen[i] == matching[i], "allprefixed key or order");
            break;
        }
        }
        if (keys.empty()) {
            check(tree.root == nullptr, "empty tree keeps a root");
        } else {
            std::vector<std::string> leaves;
            collect(tree.root, -1, -1, leaves);
            check(leaves == std::vector<std::string>(keys.begin(), keys.end()),
                  "leaves differ from the keys or their order");
        }
    }
    patricia_clear(&tree);
    check(tree.root == nullptr, "patricia_clear left a root");
    patricia_clear(&tree);
    return 0;
}
