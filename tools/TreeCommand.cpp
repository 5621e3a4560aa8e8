#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/FoundTree.h"
#include "tools/lib/TreeLines.h"
#include "tools/lib/TreePicture.h"

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Draws what a server has, with types and values; long values are shortened.

Examples:
  mox tree /run/mox.sock
  mox tree /run/mox.sock /ql --depth 2          two levels below /ql
  mox tree /run/mox.sock --state >state.txt     all of it as a state file, for "mox serve"
  mox tree /run/mox.sock --json)~";

class TreeCommand final : public LiveCommand {
public:
    explicit TreeCommand(CLI::App& app) : LiveCommand(app, "tree", "A picture of what a server has", help) {
        addPath("Of the entity; default: /");
        flag("--ascii", ascii_, "Draw in ASCII, as where the locale is not UTF-8");
        number("--depth", depth_, "Levels to draw below the first");
        flag("--state", state_, "As a state file");
        addTimeoutAndJson();
    }

    int run() override {
        if (json_ + state_ + ascii_ > 1) throw Failure(badUsage, "choose one of --json, --state and --ascii");
        if (depth_ && state_) throw Failure(badUsage, "--depth goes with a picture only");
        FoundTree const found(where_);
        Answers answers;
        if (json_) {
            writeJson(found, answers);
        } else if (state_) {
            TreeLines lines(answers, false);
            found.each([&](EntityTree::Node const& node) { lines.whole(found.tree(), node, false); });
        } else {
            drawEntities(answers, found.tree(), found.top(), ascii_, depth_);
        }
        answers.flush();
        return found.done();
    }

private:
    void writeJson(FoundTree const& found, Answers& answers) const {
        JsonList list(answers, "\"entities\": ");
        found.each([&](EntityTree::Node const& node) {
            if (!depth_ || node.depth() - found.top().depth() <= *depth_) list.add(entityJson(found.tree(), node));
        });
        list.closeWith("");
    }

    bool ascii_ = false;
    bool state_ = false;                  // print a state file
    std::optional<std::uint64_t> depth_;  // levels to draw below the first; all if it is empty
};

}  // namespace

std::unique_ptr<Command> makeTree(CLI::App& app) { return std::make_unique<TreeCommand>(app); }

}  // namespace Tool
