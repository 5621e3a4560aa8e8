#include "tools/lib/Connection.h"

#include "tools/lib/Clean.h"
#include "tools/lib/EntityTree.h"
#include "tools/lib/Names.h"
#include "tools/lib/Output.h"

#include "Vel/base/Exception.h"

#include <algorithm>

namespace Tool {

using Vel::Entity;
using Vel::StreamAttribute;

namespace {

// Returns the steps to the entities below one, at most `most`.
std::vector<std::string> namesBelow(Entity const& entity, std::size_t most) {
    std::vector<std::string> names;
    EntityTree const tree(const_cast<Entity&>(entity), "/");
    for (auto const& [place, node] : tree.root().children()) {
        if (names.size() == most) break;
        names.push_back(node->step());
    }
    return names;
}

// Returns the path of the first `count` steps, for which the server is asked. REQUIRES: these steps are names.
std::string askedPath(std::vector<Step> const& steps, std::size_t count) {
    std::string path;
    for (std::size_t i = 0; i < count; ++i) path += "/" + steps[i].key;
    return path.empty() ? "/" : path;
}

std::size_t askable(std::vector<Step> const& steps) {
    std::size_t count = 0;
    while (count < steps.size() && steps[count].attribute.empty() && steps[count].hasKey && !steps[count].key.empty() &&
           steps[count].key.find('/') == std::string::npos)
        ++count;
    return count;
}

// Returns the node of a trie at a path of prefixes such as "/rack1.port7", or null. In such a path the keys themselves
// begin with the separators, so there are no further ones between them.
Entity* entityAlong(Entity& from, std::string const& path) {
    std::string const text = decodedStep(path);
    Entity* at = &from;
    for (std::size_t begin = 0; at && begin < text.size();) {
        std::size_t const end = std::min(text.find_first_of("/.", begin + 1), text.size());
        std::string const key = text.substr(begin, end - begin);
        Step const name{"", key, true, 0}, bare{"", key.substr(1), true, 0};
        Entity* const next = entityAt(*at, placeOf(*at, name));
        at = next || !key.starts_with('/') ? next : entityAt(*at, placeOf(*at, bare));
        begin = end;
    }
    return at;
}

}  // namespace

Mount::Address addressFrom(std::string const& text) {
    try {
        return Mount::Address(Vel::String(text));
    } catch (Vel::RangeException const& error) {
        throw Failure(badUsage, cleaned(error.text().view()));
    }
}

Mount::TlsFiles tlsFilesFrom(ConnectionOptions const& options) {
    std::size_t const given = !options.certificate.empty() + !options.key.empty() + !options.authority.empty();
    if (given != 0 && given != 3)
        throw Failure(badUsage, "--cert, --key and --authority belong together: a tls: address needs all three");
    if (given == 0 && options.address.starts_with("tls:"))
        throw Failure(badUsage, "a tls: address needs --cert FILE --key FILE --authority FILE");
    return {options.certificate.c_str(), options.key.c_str(), options.authority.c_str()};
}

Mount::ClientOptions clientOptions(ConnectionOptions const& options, std::string const& path) {
    Mount::ClientOptions client;
    client.path = Vel::String(path);
    client.peer.tls = tlsFilesFrom(options);
    client.policy.described = true;  // shows all that the server has, also of other versions
    return client;
}

void connect(std::optional<Mount::Client>& client, Mount::Loop& loop, Vel::Ptr<Vel::Dir> const& place,
    Mount::ClientOptions const& clientOptions, ConnectionOptions const& options) {
    Mount::Address const address = addressFrom(options.address);
    try {
        client.emplace(loop, address, place, "copy", clientOptions);
    } catch (Vel::Exception const& error) {
        throw Failure(badUsage, cleaned(error.text().view()));
    }
}

std::chrono::nanoseconds secondsFrom(double seconds) {
    constexpr double most = 1e9;  // some thirty years
    if (!(seconds >= 0)) throw Failure(badUsage, "--timeout: a number of seconds expected, not less than 0");
    return std::chrono::nanoseconds(static_cast<std::int64_t>(std::min(seconds, most) * 1e9));
}

std::string adviceFor(Vel::StreamFault fault) {
    if (fault == Vel::StreamFault::noSuchModule) return "; --module LIB.so loads a library of further types";
    if (fault == Vel::StreamFault::otherVersion) return "; this tool and the server are of different versions";
    return "";
}

std::string normalPath(std::string const& path) {
    std::string normal;
    std::size_t begin = 0;
    for (Step const& step : stepsOf(path)) {
        begin = path.find_first_not_of('/', begin);
        normal += "/" + path.substr(begin, step.end - begin);
        begin = step.end;
    }
    return normal.empty() ? "/" : normal;
}

std::string withAddress(ConnectionOptions const& options, std::string const& error) {
    std::string const address = addressFrom(options.address).text().stdString();
    return error.starts_with(address) ? error : address + ": " + error;
}

// --- connections ---

Vel::Ptr<Vel::Dir> placeForCopy() {
    static auto& places = *new std::vector<Vel::Ptr<Vel::Dir>>;
    return places.emplace_back(Vel::Dir::newEntity(""));
}

Connection::Connection(ConnectionOptions const& options, std::string const& path, bool wantsToWrite)
    : options_(options) {
    Mount::ClientOptions client = clientOptions(options, path);
    client.wantsToWrite = wantsToWrite;
    client.connectTimeout = std::chrono::duration_cast<Mount::Milliseconds>(secondsFrom(options.timeout));
    connect(client_, loop_, place_, client, options);
    client_->onErrorIs([this](Vel::String const& error) {
        if (!error_.empty()) return;
        error_ = error.empty() ? "the connection was closed" : error.stdString();
        fault_ = client_->fault();
    });
}

bool Connection::sync() {
    auto const isDone = [&] { return client_->state() == Mount::Client::State::synced || !error_.empty(); };
    Vel::U64 seen = 0;
    while (!loop_.runUntil(isDone, secondsFrom(options_.timeout))) {
        Vel::U64 const now = client_->replica().messagesIn();
        if (now == seen)
            throw Failure(somethingWrong, options_.address + ": nothing has come for " +
                                              Vel::format("%g", options_.timeout).stdString() +
                                              " s; --timeout S waits longer");
        seen = now;
    }
    if (error_.empty()) return true;
    if (fault_ == Vel::StreamFault::nothingThere) return false;
    throw Failure(somethingWrong, cleaned(withAddress(options_, error_)) + adviceFor(fault_));
}

Entity& Connection::root() { return *client_->replica().root(); }

// --- entities ---

Found::Found(ConnectionOptions const& options, std::string const& path, bool wantsToWrite) : options_(options) {
    std::vector<Step> const steps = stepsOf(path);
    std::size_t count = askable(steps);
    connect(steps, count, wantsToWrite);
    // If the entity is not found by its name, copies the entity above it, and so on, to say which names there are.
    bool isThere = connection_->sync();
    while (!isThere && count > 0) {
        connect(steps, --count, wantsToWrite);
        isThere = connection_->sync();
    }
    if (!isThere) throw Failure(somethingWrong, cleaned(withAddress(options, connection_->error())));
    rootPath_ = normalPath(path.substr(0, count == 0 ? 0 : steps[count - 1].end));
    entity_ = &connection_->root();
    for (std::size_t i = count; i < steps.size(); ++i) {
        Entity* next = entityAt(*entity_, placeOf(*entity_, steps[i]));
        std::size_t const begin = i == 0 ? 0 : steps[i - 1].end;
        if (!next && steps[i].attribute.empty() && (next = entityAlong(*entity_, path.substr(begin)))) i = steps.size();
        if (!next) failMissing(*entity_, normalPath(path.substr(0, begin)), steps[i]);
        entity_ = next;
    }
}

void Found::connect(std::vector<Step> const& steps, std::size_t count, bool wantsToWrite) {
    connection_.reset();
    connection_.emplace(options_, askedPath(steps, count), wantsToWrite);
}

void Found::failMissing(Entity const& above, std::string const& path, Step const& step) const {
    constexpr std::size_t most = 10000, some = 10;
    std::vector<std::string> names = namesBelow(above, most);
    std::string const wanted = step.attribute.empty() ? step.key : "@" + step.attribute;
    auto const near = nearest(wanted, names);
    std::string text = path + " has no " + shortened(shown(wanted), 80);
    if (attributeNamed(above.fwkType(), wanted))
        text = path + " has no entity " + wanted + ", but an attribute: \"mox get " + options_.address + " " + path +
               " " + wanted + "\"";
    else if (names.empty())
        text += "; there is nothing below this " + std::string(above.fwkType().name());
    else if (!near.empty())
        text += "; did you mean " + alternatives(near) + "?";
    else if (names.size() <= some)
        text += ", only " + joined(names, ", ");
    else
        text += "; \"mox ls " + options_.address + " " + path + "\" lists what it has";
    throw Failure(somethingWrong, text);
}

StreamAttribute const& singleAttribute(
    Entity const& entity, std::string const& name, ConnectionOptions const& options) {
    StreamAttribute const& attribute = attributeOf(entity, name);
    if (attribute.isCollection())
        throw Failure(somethingWrong, name + " is a collection: \"mox ls " + options.address + " " +
                                          normalPath(options.path) + "\" lists its members");
    return attribute;
}

}  // namespace Tool
