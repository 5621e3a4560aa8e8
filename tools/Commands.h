#pragma once

#include "tools/Command.h"

// All commands, in the order of "mox --help". Each is in NameCommand.cpp. Add the maker of a new command here.
namespace Tool {

using Maker = std::unique_ptr<Command>(CLI::App& app);

Maker makeCell, makeTypes, makeValue, makeStat, makeIdSet, makeTrie, makeServe, makeWatch, makeGet, makeSet, makeCall,
    makeWhy, makeRights, makeList, makeTree;
inline constexpr Maker* makers[] = {makeCell, makeTypes, makeValue, makeStat, makeIdSet, makeTrie, makeServe, makeWatch,
    makeGet, makeSet, makeCall, makeWhy, makeRights, makeList, makeTree};

}  // namespace Tool
