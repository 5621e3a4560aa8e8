// Sets of ids: calculates which ports are free and which are taken twice, and shows the text and the bytes of a set.
#include "Mox/IdSet.h"

#include <iostream>
#include <unordered_set>

using Mox::Id;
using Mox::IdSet;

int main() {
    constexpr Mox::U16 ports = 1024;
    IdSet web(ports, {80, 443});
    IdSet database(ports, {443, 500});
    database.idSetRange(600, 610);  // 600 to 609
    std::cout << "web " << web << ", database " << database << '\n';

    std::cout << "taken twice: " << (web & database) << '\n';
    IdSet const taken = web | database;
    std::cout << taken.ids() << " taken, " << taken.buckets() << " words kept of " << taken.maxBuckets() << '\n';

    IdSet free(ports);
    free.idSetAll();
    free -= taken;
    std::cout << "the first free one from 600 up: " << free.nextId(599).value() << '\n';

    unsigned sum = 0;
    for (Id const id : web) sum += id.value();
    std::cout << "sum of the web's: " << sum << '\n';

    // Parses a text from outside with a check: no text can abort the process.
    auto const read = IdSet::checked(ports, "(80,443,2000)");
    if (!read) std::cout << "refused: " << read.error().text << '\n';

    Vel::NboAttrLog::Out bytes;
    bytes << web;
    auto const copy = Vel::checkedRead<IdSet>(bytes.bytes());
    std::cout << bytes.size() << " bytes, " << (copy && *copy == web ? "read back" : "lost") << '\n';

    std::unordered_set<IdSet> const layouts = {web, database, web};
    return free.nextId(599) == Id(610) && sum == 523 && !read && layouts.size() == 2 ? 0 : 1;
}
