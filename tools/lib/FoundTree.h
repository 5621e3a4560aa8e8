#pragma once

#include "tools/lib/Connection.h"
#include "tools/lib/EntityTree.h"

namespace Tool {

// The entities at and below a path of a server. The tree is of the whole copy, which may begin above the path.
class FoundTree {
public:
    explicit FoundTree(ConnectionOptions const& options);  // throws Failure

    EntityTree const& tree() const { return tree_; }
    EntityTree::Node& top() const { return *top_; }
    // Calls f(node) for top() and all nodes below it, in the order of paths.
    template <class F> void each(F const& f) const {
        for (EntityTree::Node* node = top_; node; node = EntityTree::next(*node, *top_)) f(*node);
    }
    int done() const;  // returns the exit code of a command that has shown it; says on standard error what is left out

private:
    Found found_;
    EntityTree tree_;
    EntityTree::Node* top_;
};

}  // namespace Tool
