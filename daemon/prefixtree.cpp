#include "prefixtree.h"

#include <algorithm>
#include <utility>

namespace zebd
{

using children = std::vector<std::unique_ptr<prefix_node>>;

/* Where among the children the one for OCTET is or would have to be. */
static std::ptrdiff_t place_of(const prefix_node &node, char octet)
{
    const auto at = std::lower_bound(
        node.children.begin(), node.children.end(), octet,
        [](const std::unique_ptr<prefix_node> &child, char first) { return child->label[0] < first; });
    return at - node.children.begin();
}

static prefix_node *child_of(const prefix_node &node, char octet)
{
    const auto at = node.children.begin() + place_of(node, octet);
    return at != node.children.end() && (*at)->label[0] == octet ? at->get() : nullptr;
}

static size_t common_length(std::string_view left, std::string_view right)
{
    const auto differ = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
    return static_cast<size_t>(differ.first - left.begin());
}

/* Cuts the edge to NODE after LENGTH octets: NODE becomes the place in between, and what it was its child. */
static void split(prefix_node &node, size_t length)
{
    auto rest = std::make_unique<prefix_node>();
    rest->label = node.label.substr(length);
    rest->filed.swap(node.filed);
    rest->children.swap(node.children);
    node.label.resize(length);
    node.children.push_back(std::move(rest));
}

clause_list &prefix_tree_add(prefix_tree &tree, std::string_view prefix)
{
    prefix_node *node = &tree.root;
    while (!prefix.empty()) {
        prefix_node *child = child_of(*node, prefix[0]);
        if (child == nullptr) {
            auto leaf = std::make_unique<prefix_node>();
            leaf->label = prefix;
            const auto at = node->children.begin() + place_of(*node, prefix[0]);
            return (*node->children.insert(at, std::move(leaf)))->filed;
        }
        node = child;
        const size_t common = common_length(node->label, prefix);
        if (common < node->label.size())
            split(*node, common);
        prefix.remove_prefix(common);
    }
    return node->filed;
}

clause_list *prefix_tree_find(prefix_tree &tree, std::string_view prefix)
{
    prefix_node *node = &tree.root;
    while (!prefix.empty()) {
        node = child_of(*node, prefix[0]);
        if (node == nullptr || !prefix.starts_with(node->label))
            return nullptr;
        prefix.remove_prefix(node->label.size());
    }
    return &node->filed;
}

/* A node with nothing filed and a single child is one edge too many. */
static void join_with_only_child(prefix_node &node)
{
    const std::unique_ptr<prefix_node> only = std::move(node.children[0]);
    node.label += only->label;
    node.filed.swap(only->filed);
    children below = std::move(only->children);
    node.children = std::move(below);
}

void prefix_tree_drop(prefix_tree &tree, std::string_view prefix)
{
    prefix_node *parent = nullptr;
    prefix_node *node = &tree.root;
    while (!prefix.empty()) {
        parent = node;
        node = child_of(*node, prefix[0]);
        if (node == nullptr || !prefix.starts_with(node->label))
            return;
        prefix.remove_prefix(node->label.size());
    }
    if (parent == nullptr || !node->filed.empty())
        return;
    if (node->children.size() == 1)
        join_with_only_child(*node);
    else if (node->children.empty()) {
        parent->children.erase(parent->children.begin() + place_of(*parent, node->label[0]));
        if (parent != &tree.root && parent->filed.empty() && parent->children.size() == 1)
            join_with_only_child(*parent);
    }
}

void prefix_tree_collect(prefix_tree &tree, std::string_view text, uint64_t round, clause_list &out)
{
    prefix_node *node = &tree.root;
    for (;;) {
        if (std::exchange(node->collected, round) != round)
            out.insert(out.end(), node->filed.begin(), node->filed.end());
        if (text.empty())
            return;
        node = child_of(*node, text[0]);
        if (node == nullptr || !text.starts_with(node->label))
            return;
        text.remove_prefix(node->label.size());
    }
}

} // namespace zebd
