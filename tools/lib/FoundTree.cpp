#include "tools/lib/FoundTree.h"

#include "tools/lib/TreeLines.h"

namespace Tool {

FoundTree::FoundTree(ConnectionOptions const& options)
    : found_(options, options.path),
      tree_(found_.connection().root(), found_.rootPath()),
      top_(tree_.find(found_.entity())) {
    if (!top_) throw Failure(somethingWrong, "this path is too long");
}

int FoundTree::done() const { return exitCodeOf(tree_); }

}  // namespace Tool
