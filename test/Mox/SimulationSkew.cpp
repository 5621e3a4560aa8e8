#include "SimulationSkew.h"

#include "Vel/describe/Module.h"
#include "Vel/entity/ForeignEntity.h"
#include "Vel/entity/Together.h"

#include <algorithm>
#include <cstdio>

// The newer version of a module, and a module that only the source has, are in no registry.
namespace Ports {
extern Vel::Detail::ModuleTableOf<New::Holder> const holders;
extern Vel::Detail::ModuleTableOf<New::Mood, New::Point, New::Port, New::Rack> const newer;
}  // namespace Ports

#define HOME(TYPE, INDEX)                                                                                              \
    template <> Vel::VelType Vel::DefinedByVEL_MODULE<TYPE>::type() { return {&Ports::newer.header, INDEX}; }
HOME(Ports::New::Mood, 0)
HOME(Ports::New::Point, 1)
HOME(Ports::New::Port, 2)
HOME(Ports::New::Rack, 3)
template <> Vel::VelType Vel::DefinedByVEL_MODULE<Ports::New::Holder>::type() { return {&Ports::holders.header, 0}; }
#undef HOME

namespace Ports {
constinit Vel::Detail::ModuleTableOf<New::Holder> const holders = Vel::Detail::moduleTable<New::Holder>("Holders");
constinit Vel::Detail::ModuleTableOf<New::Mood, New::Point, New::Port, New::Rack> const newer =
    Vel::Detail::moduleTable<New::Mood, New::Point, New::Port, New::Rack>("Ports");
}  // namespace Ports

template struct Vel::DefinedByVEL_MODULE<Ports::New::Mood>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Point>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Port>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Rack>;
template struct Vel::DefinedByVEL_MODULE<Ports::New::Holder>;

VEL_MODULE(Ports, 7d0ea731f8130b83, Ports::Old::Mood, Ports::Old::Point, Ports::Old::Port);

namespace Simulation {

namespace Old = Ports::Old;
namespace New = Ports::New;
using Vel::ForeignEntity;

// --- the source's changes ---

// None of them says that something has changed which has not: a described copy would not say that.

namespace {

U64 speedOf(U64 serial) { return 3 * serial + 1; }  // so that a port that has just been made is not whole
New::Point pointOf(U32 number) { return {14 + number, 3 * number}; }
U32 uidOf(New::Port const& port) { return static_cast<U32>(std::stoul(port.label().stdString())); }

// Entities that refer to each other in a circle would never be freed, so ports refer to later ones only,
Ptr<New::Port> ifLater(Ptr<New::Port> const& target, New::Port const& than) {
    return uidOf(*target) > uidOf(than) ? target : nullptr;
}
// and racks to nothing that can contain or mean a rack, but for what has its pointers cut in the end.
Ptr<Vel::Entity> ifInNoCircle(Ptr<Vel::Entity> const& target) {
    bool const mayLeadBack = dynamic_cast<Vel::Dir*>(target.get()) || dynamic_cast<New::Rack*>(target.get()) ||
                             dynamic_cast<New::Holder*>(target.get());
    return mayLeadBack ? nullptr : target;
}

}  // namespace

std::string World::newAbroad(Step const& step) {
    auto const dir = any<Vel::Dir>(step.n[1]);
    String const name = Vel::format("n%u", step.n[2] % 4u);
    if (dir->entryExists(name)) return "";
    ++moves_;
    std::string const place = dir->path().stdString() + " entry " + name.stdString();
    if (hasRacks_ && step.n[3] % 4 == 0) {
        dir->entryIs(New::Rack::newEntity(name));
        return place + " is a new rack";
    }
    if (hasRacks_ && step.n[3] % 4 == 1) {
        dir->entryIs(New::Holder::newEntity(name));
        return place + " is a new holder";
    }
    auto const port = New::Port::newEntity(name);
    begin(*port);
    dir->entryIs(port);
    return place + " is a new port";
}

// The label is the port's uid.
void World::begin(New::Port& port) {
    port.labelIs(Vel::format("%u", ++uids_));
    port.speedIs(speedOf(0));
}

std::string World::changeAbroad(Step const& step) {
    auto const port = any<New::Port>(step.n[1]);
    U16 const which = step.n[0] % 16;
    if (!port || which < 3) return newAbroad(step);
    if (which >= 13) return changeRack(step, port);
    auto const key = static_cast<U8>(step.n[2] % 4);
    String const lane = Vel::format("k%u", step.n[2] % 3u);
    std::string const name = port->path().stdString() + " ";
    switch (which) {
    case 3:
    case 4:
        ++serial_;
        Vel::together(*port, [&] { port->serialIs(serial_), port->speedIs(speedOf(serial_)); });
        return name + "serial and speed change";
    case 5:
    case 6:
        portHistory_[++serial_] = uidOf(*port);
        port->pointIs(pointOf(serial_));
        return name + "point is " + std::to_string(serial_);
    case 7:
        port->moodIs(static_cast<New::MoodName>(step.n[2] % 3));
        return name + "mood changes";
    case 8:
        port->markIs(key, pointOf(++serial_));
        return name + "mark changes";
    case 9:
        port->markDel(key);
        return name + "markDel";
    case 10:
        ++moves_;
        port->peerIs(step.n[2] % 3 ? ifLater(any<New::Port>(step.n[3]), *port) : nullptr);
        return name + "peer changes";
    case 11:
        ++moves_;
        if (bool const isThere = port->lane(lane) != nullptr; step.n[3] % 3 == 0) {
            if (isThere) port->laneDel(lane);
            return isThere ? name + "laneDel" : "";
        } else if (isThere) {
            return "";
        }
        begin(*port->laneIs(lane));
        return name + "has a new lane";
    default: {
        ++moves_;
        auto const link = step.n[3] % 3 ? ifLater(any<New::Port>(step.n[3]), *port) : nullptr;
        if (link == port->link(key)) return "";
        if (link)
            port->linkIs(key, link);
        else
            port->linkDel(key);
        return name + "link changes";
    }
    }
}

std::string World::changeRack(Step const& step, Ptr<New::Port> const& port) {
    auto const rack = any<New::Rack>(step.n[2]);
    if (!rack) return "";
    ++moves_;
    std::string const name = rack->path().stdString() + " ";
    if (step.n[0] % 16 == 13) {
        rack->uplinkIs(step.n[3] % 3 ? port : nullptr);
        return name + "uplink changes";
    }
    if (auto const holder = any<New::Holder>(step.n[1]); holder && step.n[0] % 16 == 14) {
        holder->rackIs(step.n[3] % 3 ? rack : nullptr);
        return holder->path().stdString() + " rack changes";
    }
    auto const key = static_cast<U16>(step.n[3] % 3);
    auto const inSlot = step.n[3] % 2 ? ifInNoCircle(any<Vel::Entity>(step.n[1])) : nullptr;
    if (inSlot == rack->slot(key)) return "";
    if (inSlot)
        rack->slotIs(key, inSlot);
    else
        rack->slotDel(key);
    return name + "slot changes";
}

// --- copies ---

Vel::StreamPolicy policyOf(U16 n) {
    switch (n % 4) {
    case 0:
        return {.byName = true};
    case 1:
        return {.byName = true, .described = true};
    default:
        return {.described = true};
    }
}

bool isByName(Vel::Entity const& original, Vel::Entity const& copy) {
    return original.fwkType() == Vel::typeOf<New::Port>() && copy.fwkType() == Vel::typeOf<Old::Port>();
}

namespace {

char const* nameOf(Vel::Entity const& entity, Vel::AttributeId id) {
    auto const attribute = entity.fwkType().attributeOfId(id);
    return attribute ? attribute->name() : "";
}

std::string bytesOf(Vel::Entity const& entity, Vel::StreamAttribute const& attribute, std::span<U8 const> key = {}) {
    StreamTest::Detail::Hex sink;
    if (attribute.isCollection())
        attribute.serializeKey(sink, attribute.id, entity, key, nullptr);
    else
        attribute.serialize(sink, attribute.id, entity, nullptr);
    return StreamTest::hex(Vel::NboAttrLog::messageBody(sink.bytes.bytes()));
}

std::set<std::string> keysOf(Vel::Entity const& entity, Vel::StreamAttribute const& attribute) {
    std::set<std::string> keys;
    std::unique_ptr<Vel::NboAttrLog::Bookmark> const left(attribute.bookmark(entity));
    while (left->left() != 0) {
        Vel::NboAttrLog::Out key;
        left->next(key);
        keys.emplace(reinterpret_cast<char const*>(key.bytes().data()), key.bytes().size());
    }
    return keys;
}

// Walks the source and the copy at once, by what is copied.
class Walk {
public:
    explicit Walk(Pairs& pairs) : pairs_(pairs) {}

    std::string run(Vel::Entity& original, Vel::Entity& copy) {
        add(&original, &copy, "root");
        while (!left_.empty() && difference_.empty()) {
            auto const [a, b] = left_.back();
            left_.pop_back();
            for (Vel::StreamAttribute const& attribute : a->fwkType().glue().stream().attributes)
                if (auto const* const other = counterpart(*a, attribute, *b)) compare(*a, attribute, *b, *other);
        }
        return difference_;
    }

private:
    void add(Vel::Entity* a, Vel::Entity* b, std::string const& where) {
        if (!a && !b) return;
        if (!a || !b) return differs(where + (a ? ": the copy has nothing there" : ": the copy has an entity there"));
        auto const [found, isNew] = pairs_.emplace(a, b);
        if (found->second != b) return differs(where + ": the copy refers to another entity");
        if (!isNew) return;
        if (std::string_view(a->fwkType().name()) != b->fwkType().name())
            return differs(where + ": the copy is of another type");
        left_.emplace_back(a, b);
    }
    void compare(Vel::Entity& a, Vel::StreamAttribute const& mine, Vel::Entity& b, Vel::StreamAttribute const& theirs) {
        std::string const where = a.path().stdString() + " " + nameOf(a, mine.id);
        if (mine.kind == Vel::StreamKind::pointer) return add(mine.target(a), theirs.target(b), where);
        if (mine.kind == Vel::StreamKind::value) {
            // The ids differ, and are no part of the bytes.
            if (bytesOf(a, mine) != bytesOf(b, theirs)) differs(where + ": the values differ");
            return;
        }
        auto const keys = keysOf(a, mine);
        if (keys != keysOf(b, theirs)) return differs(where + ": the keys differ");
        for (std::string const& key : keys) {
            std::span<U8 const> const bytes(reinterpret_cast<U8 const*>(key.data()), key.size());
            Vel::NboAttrLog::In in(bytes), again(bytes);
            if (mine.holdsEntities())
                add(mine.member(a, in), theirs.member(b, again), where);
            else if (bytesOf(a, mine, bytes) != bytesOf(b, theirs, bytes))
                differs(where + ": the values at a key differ");
        }
    }
    void differs(std::string const& what) {
        if (difference_.empty()) difference_ = what;
    }

    Pairs& pairs_;
    std::vector<std::pair<Vel::Entity*, Vel::Entity*>> left_;
    std::string difference_;
};

}  // namespace

std::string commonName(Vel::Entity const& port, Vel::AttributeId attribute) {
    static constexpr std::string_view common[] = {"label", "point", "peer", "mark", "link"};
    std::string const name = nameOf(port, attribute);
    return std::find(std::begin(common), std::end(common), name) == std::end(common) ? "" : name;
}

Vel::StreamAttribute const* counterpart(
    Vel::Entity const& original, Vel::StreamAttribute const& attribute, Vel::Entity const& copy) {
    Vel::StreamTable const& table = copy.fwkType().glue().stream();
    if (!isByName(original, copy)) return table.find(attribute.id);
    std::string const name = commonName(original, attribute.id);
    auto const there = name.empty() ? std::nullopt : copy.fwkType().attribute(name.c_str());
    return there ? table.find(there->attributeId()) : nullptr;
}

std::string pairUp(Vel::Entity& original, Vel::Entity& copy, Pairs& pairs) { return Walk(pairs).run(original, copy); }

// --- a copy of a port ---

namespace {

std::string foreignText(Vel::Entity const& copy, char const* name) {
    auto const& foreign = static_cast<ForeignEntity const&>(copy);
    return foreign.value(foreign.fwkType().attribute(name)->attributeId()).strep().stdString();
}

Old::Point pointFrom(std::string const& text) {
    Old::Point point;
    if (std::sscanf(text.c_str(), "Value('Ports::Point', ** {'x': %u, 'y': %u})", &point.x, &point.y) != 2)
        point.x = ~0u;
    return point;
}

bool isWholePoint(Old::Point const& point) { return point == Old::Point() || point.y == 3 * (point.x - 14); }

Old::Point pointIn(Vel::Entity const& copy) {
    if (auto const* const port = dynamic_cast<Old::Port const*>(&copy)) return port->point();
    return pointFrom(foreignText(copy, "point"));
}

}  // namespace

bool PortView::isPort(Vel::Entity const& entity) { return std::string_view(entity.fwkType().name()) == "Ports::Port"; }

U32 PortView::uid() const {
    auto const* const port = dynamic_cast<Old::Port const*>(&copy_);
    std::string const text = port ? port->label().stdString() : foreignText(copy_, "label").substr(1);
    return static_cast<U32>(std::strtoul(text.c_str(), nullptr, 10));
}

bool PortView::isPoint(Vel::AttributeId attribute) const {
    return std::string_view(nameOf(copy_, attribute)) == "point";
}

U32 PortView::point() const {
    U32 const x = pointIn(copy_).x;
    return x == 0 ? 0 : x - 14;
}

bool PortView::isPointWhole() const { return isWholePoint(pointIn(copy_)); }

bool PortView::areMarksWhole() const {
    auto const* const port = dynamic_cast<Old::Port const*>(&copy_);
    for (U8 key = 0; port && key < 4; ++key)
        if (!isWholePoint(port->mark(key))) return false;
    return true;
}

bool PortView::isWhole() const {
    if (dynamic_cast<Old::Port const*>(&copy_)) return true;  // neither of the two is copied
    return std::stoull(foreignText(copy_, "speed")) == speedOf(std::stoull(foreignText(copy_, "serial")));
}

}  // namespace Simulation
