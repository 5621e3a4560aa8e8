// An agent that serves entities of a type of its own. Whoever has the type's library can mount them as such entities; the
// tool mox shows and changes them without it.
//
//     $ weather unix:/tmp/weather.sock &
//     $ mox tree /tmp/weather.sock
#include "Mount/Server.h"
#include "examples/Sky.h"

#include "Vel/base/Exception.h"
#include "Vel/entity/Dir.h"

#include <csignal>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: weather ADDRESS\n";
        return 2;
    }
    try {
        auto const views = Vel::Dir::newEntity("views");
        for (char const* const name : {"east", "west"}) views->entryIs(Weather::View::newEntity(name));
        Vel::ptr_cast<Weather::View>(views->entry("west"))->skyIs(Weather::SkyName::cloudy);

        Mount::Loop loop;
        loop.onSignal(SIGTERM, [&] { loop.stop(); });
        loop.onSignal(SIGINT, [&] { loop.stop(); });
        Mount::ServerOptions options;
        options.source.mayWrite = true;
        options.history = 100;
        Mount::Server server(loop, views, options);
        std::cout << "serving at " << server.listen(argv[1]).text() << std::endl;
        loop.run();
    } catch (Vel::Exception const& error) {
        std::cerr << "weather: " << error.what() << '\n';
        return 1;
    }
}
