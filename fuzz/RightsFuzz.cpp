#include "Mount/Rights.h"

#include <cstdint>
#include <cstdlib>

// Files of rights. Whatever is accepted, the rights of a peer are what the rules that decide allow.

namespace {

Mount::RightsNames const names = {
    [](Vel::String const& name) { return name.size() == 1 ? std::optional<Vel::U32>(name.data()[0]) : std::nullopt; },
    [](Vel::String const& name) { return name.size() == 1 ? std::optional<Vel::U32>(name.data()[0]) : std::nullopt; }};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    std::vector<Mount::Rights::Mistake> mistakes;
    auto const rights = Mount::Rights::parsed(text, mistakes, names);
    if (mistakes.size() > Mount::Rights::mostMistakes) std::abort();
    for (auto const& mistake : mistakes)
        if (mistake.line == 0 || mistake.column == 0 || mistake.text.empty()) std::abort();
    Mount::RightsPeer const peers[] = {
        {}, {.user = 'a', .groups = {'g', 'h'}, .name = {}}, {.user = {}, .groups = {}, .name = "db7.lab.example"}};
    for (Mount::RightsPeer const& peer : peers) {
        auto const may = rights->ofPeer(peer);
        std::size_t tried = 0;
        for (Mount::Rights::Rule const& rule : rights->rules()) {
            if (++tried > 20) break;
            for (Vel::String const& path : {rule.path, rule.path + "/x", rule.path + ".x"}) {
                Vel::Access const access = accessOf(rights->deciding(peer, path.view()));
                if (may->of(path) != access || (may->most() | access) != may->most()) std::abort();
            }
        }
    }
    return 0;
}
