#pragma once

#include "tools/lib/Connection.h"
#include "tools/lib/EntityTree.h"

namespace Tool {

// What a server has at a path, in the tree of the copy that it is in.
class FoundTree {
public:
    explicit FoundTree(ConnectionOptions const& options);  // throws Failure

    EntityTree const& tree() const { return tree_; }
    EntityTree::Node& top() const { return *top_; }
    // Calls f(node) for it and all below it, in the order of paths.
    template <class F> void each(F const& f) const {
        for (EntityTree::Node* node = top_; node; node = EntityTree::next(*node, *top_)) f(*node);
    }
    int done() const;  // the exit code of who has shown it: says when something is left out

private:
    Found found_;
    EntityTree tree_;
    EntityTree::Node* top_;
};

}  // namespace Tool
