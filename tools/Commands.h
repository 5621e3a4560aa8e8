#pragma once

#include "tools/Command.h"

// All commands, in the order of "mox --help". Each is in the file of its name; a new one is added here.
namespace Tool {

using Maker = std::unique_ptr<Command>(CLI::App& app);

Maker makeCell, makeTypes, makeValue, makeStat, makeIdSet, makeTrie, makeServe, makeWatch, makeGet, makeSet, makeList,
    makeTree;
inline constexpr Maker* makers[] = {makeCell, makeTypes, makeValue, makeStat, makeIdSet, makeTrie, makeServe, makeWatch,
    makeGet, makeSet, makeList, makeTree};

}  // namespace Tool
