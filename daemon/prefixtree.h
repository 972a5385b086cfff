/* Beginnings of texts: a tree in which each edge carries one or more octets, so its depth is bounded by the
 * number of beginnings that begin like each other, not by their length. What is filed under a beginning is a
 * list of pointers of which the tree knows nothing. */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zebd
{

struct filed_clause;
using clause_list = std::vector<filed_clause *>;

struct prefix_node {
    std::string label; /* the octets of the edge that leads here */
    clause_list filed;
    std::vector<std::unique_ptr<prefix_node>> children; /* by the first octet of their label */
    uint64_t collected = 0;                             /* in which round last */
};

struct prefix_tree {
    prefix_node root;
};

/* The list of PREFIX, made when there is none. It stays where it is until the next add or drop. */
clause_list &prefix_tree_add(prefix_tree &tree, std::string_view prefix);

/* The list of PREFIX, or null. */
clause_list *prefix_tree_find(prefix_tree &tree, std::string_view prefix);

/* Takes PREFIX out once its list is empty. */
void prefix_tree_drop(prefix_tree &tree, std::string_view prefix);

/* Appends the lists of all beginnings of TEXT, but for those that were already appended in this ROUND, which
 * is not 0. */
void prefix_tree_collect(prefix_tree &tree, std::string_view text, uint64_t round, clause_list &out);

} // namespace zebd
