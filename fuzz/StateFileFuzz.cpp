#include "tools/lib/StateFile.h"
#include "tools/lib/TreeLines.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

// Any text is a state file or has a mistake within it; what a file says is written as a file that says the same. Who
// wants to know of all mistakes is told of that one first, and gets what the other lines say.

namespace {

using Vel::Entity;
using Vel::Ptr;
using Vel::StreamAttribute;
using Vel::StreamKind;

[[noreturn]] void fail(std::string const& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

std::string written(Entity& root) {
    Tool::Answers answers(std::numeric_limits<std::size_t>::max());
    Tool::TreeLines lines(answers, false);
    Tool::EntityTree const tree(root, "/");
    for (auto* node = &tree.root(); node; node = Tool::EntityTree::next(*node, tree.root()))
        lines.whole(tree, *node, false);
    return answers.kept();
}

// Entities that refer to each other would keep each other.
void takeApart(Entity& root) {
    std::vector<Ptr<Entity>> all;
    {
        Tool::EntityTree const tree(root, "/");
        for (auto* node = &tree.root(); node; node = Tool::EntityTree::next(*node, tree.root()))
            all.push_back(Ptr<Entity>(&node->entity()));
    }
    for (Ptr<Entity> const& entity : all)
        for (StreamAttribute const& attribute : Tool::streamTableOf(*entity)->attributes) {
            if (attribute.kind == StreamKind::pointer) attribute.targetIs(*entity, nullptr);
            if (!attribute.isCollection()) continue;
            std::unique_ptr<Vel::NboAttrLog::Bookmark> const keys(attribute.bookmark(*entity));
            while (keys->left() != 0) {
                Vel::NboAttrLog::Out key;
                keys->next(key);
                Vel::NboAttrLog::In in(key.bytes());
                attribute.memberDel(*entity, in);
            }
        }
}

void check(Tool::StateMistake const& mistake) {
    if (mistake.text.empty() || mistake.line == 0 || mistake.offset > mistake.lineText.size())
        fail("a mistake without a place: " + mistake.text);
}

// The first mistake, or nothing.
std::optional<Tool::StateMistake> firstMistake(std::string_view text) {
    std::optional<Tool::StateMistake> first;
    Tool::StateListener listener;
    listener.mistake = [&](Tool::StateMistake const& mistake) {
        check(mistake);
        if (!first) first = mistake;
    };
    listener.taken = check;
    Ptr<Entity> const root = Tool::entitiesFromState(text, listener);
    written(*root);
    takeApart(*root);
    return first;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    auto const known = firstMistake(text);
    try {
        Ptr<Entity> const root = Tool::entitiesFromState(text);
        if (known) fail("a mistake that is not thrown: " + known->text);
        std::string const first = written(*root);
        Ptr<Entity> const again = Tool::entitiesFromState(first);
        std::string const second = written(*again);
        takeApart(*root);
        takeApart(*again);
        if (first != second) fail("written:\n" + first + "and then:\n" + second);
    } catch (Tool::StateMistake const& mistake) {
        check(mistake);
        if (!known || known->text != mistake.text || known->line != mistake.line || known->offset != mistake.offset)
            fail("another mistake than the first one is thrown: " + mistake.text);
    }
    return 0;
}
