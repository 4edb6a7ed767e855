// See the header. Boost asks "less than" only; our comparator answers that too.
#include "bench/boost_tree.h"

#include <boost/intrusive/avltree_algorithms.hpp>
#include <boost/intrusive/detail/avltree_node.hpp>

#include "platform/tree.h"

namespace {

using traits = boost::intrusive::avltree_node_traits<void *, true>;  // true: compact
using tree = boost::intrusive::avltree_algorithms<traits>;
using node_ptr = traits::node_ptr;
using const_node_ptr = traits::const_node_ptr;
static_assert(sizeof(traits::node) == sizeof(boost_node));

node_ptr as_node(const void *address) { return static_cast<node_ptr>(const_cast<void *>(address)); }

struct less {
  boost_cmp cmp;
  bool operator()(const_node_ptr a, const_node_ptr b) const { return cmp(a, b) == TREE_BEFORE; }
};

void *found(boost_node *header, node_ptr n) { return n == as_node(header) ? nullptr : n; }

}  // namespace

void boost_tree_init(boost_node *header) { tree::init_header(as_node(header)); }

void *boost_tree_insert(boost_node *header, void *node, boost_cmp cmp) {
  tree::insert_commit_data where;
  const const_node_ptr key = as_node(node);
  if (!tree::insert_unique_check(as_node(header), key, less{cmp}, where).second) return nullptr;
  tree::insert_unique_commit(as_node(header), as_node(node), where);
  return node;
}

void boost_tree_erase(boost_node *header, void *node) {
  tree::erase(as_node(header), as_node(node));
}

void *boost_tree_search(boost_node *header, const void *key, boost_cmp cmp) {
  const const_node_ptr k = as_node(key);
  return found(header, tree::find(as_node(header), k, less{cmp}));
}

void *boost_tree_first(boost_node *header) {
  return found(header, tree::begin_node(as_node(header)));
}

void *boost_tree_next(boost_node *header, void *node) {
  return found(header, tree::next_node(as_node(node)));
}

void *boost_tree_next_after_key(boost_node *header, const void *key, boost_cmp cmp) {
  const const_node_ptr k = as_node(key);
  return found(header, tree::upper_bound(as_node(header), k, less{cmp}));
}
