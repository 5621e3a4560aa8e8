#include "Vel/describe/Checked.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/OrderedMap.h"
#include "test/Vel/stream/StreamTools.h"

#include <map>
#include <unordered_set>

// Values that are fields and a description: no constructor that reads, and no name of Vel's in their namespace.
namespace Plain {

class Point {
public:
    Point() = default;
    Point(Vel::U16 x, Vel::U16 y) : x_(x), y_(y) {}

    Vel::U32 hash(Vel::U32 seed) const;
    friend bool operator==(Point const&, Point const&) = default;
    friend auto operator<=>(Point const&, Point const&) = default;

    static constexpr auto description() {
        return Vel::record("Plain::Point", Vel::field<&Point::x_>("x"), Vel::field<&Point::y_>("y"))
            .with(Vel::ordered, Vel::hashBy<&Point::hash>);
    }

private:
    Vel::U16 x_ = 0;
    Vel::U16 y_ = 0;
};

inline Vel::U32 Point::hash(Vel::U32 seed) const { return Vel::hashFields(*this, seed); }

// An aggregate. What its fields would take is no constructor that reads.
struct Label {
    Vel::String text = "none";
    Point at;
    Vel::U1 shown;
    friend bool operator==(Label const&, Label const&) = default;

    static constexpr auto description() {
        return Vel::record("Plain::Label", Vel::field<&Label::text>("text"), Vel::field<&Label::at>("at"),
            Vel::field<&Label::shown>("shown"));
    }
};
struct Flags {  // whose fields would take a pointer, and whatever follows
    bool first = false;
    bool second = false;
    friend bool operator==(Flags const&, Flags const&) = default;

    static constexpr auto description() {
        return Vel::record("Plain::Flags", Vel::field<&Flags::first>("first"), Vel::field<&Flags::second>("second"));
    }
};

class Metres {
public:
    Metres() = default;
    Metres(double value) : value_(value) {}
    friend bool operator==(Metres, Metres) = default;
    static constexpr auto description() { return Vel::number("Plain::Metres", Vel::field<&Metres::value_>("value")); }

private:
    double value_ = 0;
};

// One that does have constructors that read, and says which one has made it.
class Noted {
public:
    Noted() = default;
    Noted(Vel::U8 value) : value_(value) {}
    Noted(Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) : madeFrom("text") {
        Vel::parse(*this, it, end);
    }
    Noted(Vel::NboAttrLog::In* in, Vel::StreamBogon) : madeFrom("bytes") { Vel::read(*this, *in); }

    char const* madeFrom = "nothing";
    static constexpr auto description() { return Vel::number("Plain::Noted", Vel::field<&Noted::value_>("value")); }

private:
    Vel::U8 value_ = 0;
};

// Has them as an attribute, as keys and as values.
class Map : public Vel::EntityOf<Map> {
public:
    explicit Map(Vel::String const& name) : EntityOf(name) {}

    Point origin() const { return origin_; }
    void originIs(Point const& v) { velSet<&Map::origin_>(v); }
    Metres scale() const { return scale_; }
    void scaleIs(Metres v) { velSet<&Map::scale_>(v); }

    Label label(Point const& key) const {
        auto const found = labels_.find(key);
        return found == labels_.end() ? Label() : found->second;
    }
    void labelIs(Point const& key, Label const& label) {
        labels_[key] = label;
        velNotify<"label">(key);
    }
    void labelDel(Point const& key) {
        if (labels_.erase(key) != 0) velNotify<"label">(key);
    }
    bool labelExists(Point const& key) const { return labels_.contains(key); }

    static constexpr auto description() {
        return Vel::entity("Plain::Map", Vel::attribute<&Map::origin_, &Map::origin, &Map::originIs>("origin"),
            Vel::attribute<&Map::scale_, &Map::scale, &Map::scaleIs>("scale"),
            Vel::values<&Map::labels_>(Vel::collection<Point, Label, &Map::label, &Map::labelIs, &Map::labelDel,
                Vel::none, Vel::none, &Map::labelExists>("label")));
    }

private:
    Point origin_;
    Metres scale_;
    std::map<Point, Label> labels_;
};

}  // namespace Plain

VEL_MODULE(Plain, 9efacaf0c4079b0a, Plain::Point, Plain::Label, Plain::Flags, Plain::Metres, Plain::Noted, Plain::Map);

namespace {

using Plain::Flags;
using Plain::Label;
using Plain::Metres;
using Plain::Point;
using StreamTest::Bytes;
using Vel::U16;
using Vel::U8;

Label const label{"a", {1, 2}, true};
constexpr char text[] = "Value('Plain::Label', ** {'text': 'a', 'at': Value('Plain::Point', ** {'x': 1, 'y': 2}), "
                        "'shown': True})";
Bytes const bytes{0, 0, 0, 1, 'a', 0, 1, 0, 2, 1};

TEST(PlainValueTest, HasATextAndIsParsed) {
    EXPECT_EQ(Vel::valueToStrep(label), text);
    Vel::StrepOut out;
    out << label;
    EXPECT_EQ(out.view(), text);
    EXPECT_TRUE(Vel::strepToValue<Label>(text) == label);
    EXPECT_TRUE(Vel::strepToValue<Metres>("2.5") == Metres(2.5));
    EXPECT_TRUE(
        Vel::strepToValue<Flags>("Value('Plain::Flags', ** {'first': False, 'second': True})") == (Flags{false, true}));
    EXPECT_EQ(Vel::checkedStrepToValue<Label>("Value('Plain::Label', ** {'text': 'a', 'at': 7").error().text,
        "attribute \"at\": expected \"Value('Plain::Point', ** {\" at offset 45, at '7'");
}

TEST(PlainValueTest, WhereThereAreConstructorsThatReadTheseAreCalled) {
    EXPECT_STREQ(Vel::strepToValue<Plain::Noted>("7").madeFrom, "text");
    EXPECT_STREQ(Vel::checkedRead<Plain::Noted>(Bytes{7})->madeFrom, "bytes");
}

TEST(PlainValueTest, HasBytesAndIsRead) {
    Vel::NboAttrLog::Out out;
    out << label;
    EXPECT_EQ(Bytes(out.bytes().begin(), out.bytes().end()), bytes);
    EXPECT_EQ(Vel::attrLogSize(&label), bytes.size());
    EXPECT_TRUE(*Vel::checkedRead<Label>(bytes) == label);
    EXPECT_TRUE(*Vel::checkedRead<Flags>(Bytes{0, 1}) == (Flags{false, true}));
    EXPECT_EQ(Vel::checkedRead<Label>(Bytes(bytes.begin(), bytes.end() - 1)).error().text,
        "Plain::Label.shown: the attribute log ends within bool at offset 9: 1 bytes needed, 0 left");

    Label read;
    Vel::NboAttrLog::In in(bytes);
    Vel::read(read, in);
    EXPECT_TRUE(read == label);
}

TEST(PlainValueTest, IsReachedByReflection) {
    Vel::GenericValue const value(Vel::Registry::type("Plain::Label"), text);
    EXPECT_EQ(value.get(*value.type().attribute("at"))->strep(), "Value('Plain::Point', ** {'x': 1, 'y': 2})");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(Vel::GenericValue(value.type(), in).strep(), text);
    EXPECT_EQ(Vel::GenericValue(value.type()).strep(),
        "Value('Plain::Label', ** {'text': 'none', 'at': Value('Plain::Point', ** {'x': 0, 'y': 0}), 'shown': False})");
}

TEST(PlainValueTest, IsAKeyOfCollections) {
    EXPECT_TRUE((std::unordered_set<Point>{{1, 2}, {1, 2}, {2, 1}}.size() == 2));
    Vel::OrderedMap<Point, Label> labels;
    labels.set(Point(1, 2), label);
    EXPECT_TRUE(*labels.find(Point(1, 2)) == label);
}

TEST(PlainValueTest, TravelsAsAttributeKeyAndValue) {
    auto const map = Plain::Map::newEntity("m");
    map->originIs({3, 4});
    map->labelIs({1, 2}, label);
    StreamTest::Pair pair(map, {});
    pair.connect();
    pair.run();
    auto const copy = Vel::ptr_cast<Plain::Map>(pair.replica.root());
    EXPECT_TRUE(copy->origin() == Point(3, 4));
    EXPECT_TRUE(copy->label({1, 2}) == label);

    map->scaleIs(2.5);
    map->labelDel({1, 2});
    pair.run();
    EXPECT_TRUE(copy->scale() == Metres(2.5));
    EXPECT_FALSE(copy->labelExists({1, 2}));
}

}  // namespace
