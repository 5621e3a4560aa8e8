// A trie that one process fills, and that others mount and query.
//
//     $ shared_trie serve unix:/tmp/racks.sock site=north site/rack1.port7=10g,lab &
//     $ shared_trie ask unix:/tmp/racks.sock site/rack1.port7.lane2
#include "Mount/Client.h"
#include "Mount/Server.h"
#include "examples/TagTrie.h"

#include "Vel/base/Exception.h"

#include <csignal>
#include <iostream>
#include <span>

namespace {

int serve(char const* address, std::span<char* const> prefixes) {
    auto const trie = Tags::TagTrie::newEntity("racks");
    for (std::string_view const prefix : prefixes) {
        auto const equals = std::min(prefix.find('='), prefix.size());
        auto const state = Tags::TagState::newEntity();
        state->tagsIs(Tags::tagSet(prefix.substr(std::min(equals + 1, prefix.size()))));
        trie->prefixIs(Vel::String(prefix.substr(0, equals)), state);
    }
    Mount::Loop loop;
    loop.onSignal(SIGTERM, [&] { loop.stop(); });
    Mount::Server server(loop, trie);
    std::cout << "serving at " << server.listen(address).text() << std::endl;
    loop.run();
    return 0;
}

int ask(char const* address, std::span<char* const> paths) {
    Mount::Loop loop;
    auto const trie = Tags::TagTrie::newEntity("racks");
    Mount::Client client(loop, address, trie);
    if (!client.sync(std::chrono::seconds(10))) throw Vel::Exception(client.error());
    for (char const* const path : paths)
        std::cout << path << ": prefix '" << trie->enclosingPrefix(path) << "', tags {" << trie->tagsOf(path) << "}\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string_view const role = argc < 3 ? "" : argv[1];
    try {
        std::span<char* const> const rest(argv + std::min(argc, 3), argv + argc);
        if (role == "serve") return serve(argv[2], rest);
        if (role == "ask") return ask(argv[2], rest);
    } catch (Vel::Exception const& error) {
        std::cerr << "shared_trie: " << error.what() << '\n';
        return 1;
    }
    std::cerr << "usage: shared_trie serve ADDRESS PREFIX=TAG,TAG... | shared_trie ask ADDRESS PATH...\n";
    return 2;
}
