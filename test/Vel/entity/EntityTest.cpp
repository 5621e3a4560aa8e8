#include "Vel/entity/Entity.h"

#include "Vel/base/Exception.h"
#include "Vel/entity/Dir.h"
#include "Vel/text/Trace.h"
#include "test/Vel/describe/Fixtures.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Fixture::Demanding;
using Fixture::Leaf;
using Fixture::Nameless;
using Fixture::Twig;
using Fixture::Version;
using Vel::AttributeId;
using Vel::AttributeOp;
using Vel::Dir;
using Vel::Entity;
using Vel::notifieeOf;
using Vel::Ptr;
using Vel::String;
using Vel::typeOf;
using Vel::U32;
using Vel::VelAttr;

VelAttr attribute(Entity const& entity, std::string_view name) { return entity.fwkType().attribute(name).value(); }

// The ids that `change` notifies, in order.
template <class Change> std::vector<AttributeId> notified(Entity const& entity, Change change) {
    std::vector<AttributeId> ids;
    auto const observer = notifieeOf(entity, [&](AttributeId id) { ids.push_back(id); });
    change();
    return ids;
}
using Ids = std::vector<AttributeId>;

// --- names, parents and paths ---

TEST(EntityTest, HasTheNameItWasMadeWith) {
    EXPECT_EQ(Leaf::newEntity("leaf")->name(), "leaf");
    EXPECT_EQ(Nameless::newEntity()->name(), "");
}

TEST(EntityTest, ParentIsToldOnceForEachChange) {
    auto const leaf = Leaf::newEntity("leaf");
    auto const dir = Dir::newEntity("dir");
    leaf->parentIs(dir.get());
    leaf->parentIs(dir.get());
    EXPECT_EQ(leaf->parent(), dir.get());
    EXPECT_EQ(leaf->parentChanges, 1);
    leaf->parentIs(nullptr);
    EXPECT_EQ(leaf->parentChanges, 2);
}

TEST(EntityTest, PathLeadsFromTheRootToTheEntity) {
    auto const root = Dir::newEntity("");
    auto const inner = Dir::newEntity("a");
    auto const leaf = Leaf::newEntity("leaf");
    root->entryIs(inner);
    inner->entryIs(leaf);
    EXPECT_EQ(root->path(), "/");
    EXPECT_EQ(inner->path(), "/a");
    EXPECT_EQ(leaf->path(), "/a/leaf");
    EXPECT_EQ(Leaf::newEntity("alone")->path(), "alone");
    EXPECT_EQ(Nameless::newEntity()->path(), "/");
}

class EntityPathTest : public testing::Test {
protected:
    EntityPathTest() {
        root->entryIs(a);
        a->entryIs(b);
        b->entryIs(leaf);
    }
    ~EntityPathTest() override { root->entryDelAll(); }
    Ptr<Dir> root = Dir::newEntity("");
    Ptr<Dir> a = Dir::newEntity("a");
    Ptr<Dir> b = Dir::newEntity("b");
    Ptr<Leaf> leaf = Leaf::newEntity("leaf");
};

TEST_F(EntityPathTest, AbsolutePathStartsAtTheRootWhereverItIsAsked) {
    EXPECT_EQ(root->entity("/a/b/leaf"), leaf);
    EXPECT_EQ(b->entity("/a/b/leaf"), leaf);
    EXPECT_EQ(leaf->entity("/a"), a);
    EXPECT_EQ(leaf->entity("/"), root);
}

TEST_F(EntityPathTest, RelativePathStartsAtTheEntityAsked) {
    EXPECT_EQ(a->entity("b/leaf"), leaf);
    EXPECT_EQ(b->entity("leaf"), leaf);
    EXPECT_EQ(a->entity(""), a);
    EXPECT_EQ(a->entity("a"), nullptr);
}

TEST_F(EntityPathTest, DoubledAndTrailingSeparatorsMeanNothing) {
    EXPECT_EQ(a->entity("//a///b//leaf/"), leaf);
    EXPECT_EQ(a->entity("b//"), b);
    EXPECT_EQ(a->entity("///"), root);
}

TEST_F(EntityPathTest, MissingEntityIsNullAndNothingIsCreated) {
    EXPECT_EQ(root->entity("/a/x/leaf"), nullptr);
    EXPECT_EQ(root->entity("/a/b/leaf2"), nullptr);
    EXPECT_EQ(root->entity("/A"), nullptr);
    EXPECT_EQ(a->entries(), 1u);
}

TEST_F(EntityPathTest, NothingIsBelowWhatIsNoDirectory) {
    EXPECT_EQ(root->entity("/a/b/leaf/x"), nullptr);
    EXPECT_EQ(leaf->entity("x"), nullptr);
    EXPECT_EQ(leaf->entity("leaf"), nullptr);
}

TEST_F(EntityPathTest, DotsAreOrdinaryNames) {
    EXPECT_EQ(a->entity("../a"), nullptr);
    EXPECT_EQ(a->entity("./b"), nullptr);
}

TEST(EntityUriPathTest, KnowsWhetherItIsAbsolute) {
    EXPECT_TRUE(Vel::EntityUriPath("/a").isAbsolute());
    EXPECT_FALSE(Vel::EntityUriPath("a/").isAbsolute());
    EXPECT_FALSE(Vel::EntityUriPath("").isAbsolute());
    EXPECT_EQ(Vel::EntityUriPath(String("a//b")).text(), "a//b");
}

// --- notification ---

TEST(EntityTest, MutatorNotifiesItsAttribute) {
    auto const leaf = Leaf::newEntity("leaf");
    EXPECT_EQ(notified(*leaf, [&] { leaf->sizeIs(7); }), Ids{258});
    EXPECT_EQ(notified(*leaf, [&] { leaf->versionIs({1, true}); }), Ids{259});
    EXPECT_EQ(notified(*leaf, [&] { leaf->peerIs(Leaf::newEntity("peer")); }), Ids{260});
}

TEST(EntityTest, MutatorWithTheCurrentValueTellsNobody) {
    auto const leaf = Leaf::newEntity("leaf");
    leaf->versionIs({1, true});
    auto const peer = Leaf::newEntity("peer");
    leaf->peerIs(peer);
    EXPECT_EQ(notified(*leaf,
                  [&] {
                      leaf->sizeIs(0);
                      leaf->versionIs({1, true});
                      leaf->peerIs(peer);
                  }),
        Ids{});
}

TEST(EntityTest, ValueIsThereWhenObserversAreTold) {
    auto const leaf = Leaf::newEntity("leaf");
    U32 seen = 0;
    auto const observer = notifieeOf(*leaf, [&](AttributeId) { seen = leaf->size(); });
    leaf->sizeIs(9);
    EXPECT_EQ(seen, 9u);
}

TEST(EntityTest, NotificationCanBeSwitchedOff) {
    auto const leaf = Leaf::newEntity("leaf");
    EXPECT_TRUE(leaf->hasNotificationActive());
    leaf->hasNotificationActiveIs(false);
    EXPECT_EQ(notified(*leaf, [&] { leaf->sizeIs(7); }), Ids{});
    EXPECT_EQ(leaf->size(), 7u);
    leaf->hasNotificationActiveIs(true);
    EXPECT_EQ(notified(*leaf, [&] { leaf->sizeIs(8); }), Ids{258});
}

TEST(EntityTest, NotificationIsOffUntilAFactorySwitchesItOn) {
    Ptr<Leaf> const leaf(new Leaf("leaf"));
    EXPECT_FALSE(leaf->hasNotificationActive());
}

TEST(EntityTest, CachedAttributeChangesWithoutNotice) {
    auto const leaf = Leaf::newEntity("leaf");
    EXPECT_EQ(notified(*leaf, [&] { leaf->cachedIs(3); }), Ids{});
    EXPECT_EQ(leaf->cached(), 3u);
}

TEST(EntityTest, DerivedTypeNotifiesItsOwnAndItsBasesAttributes) {
    auto const twig = Twig::newEntity("twig");
    EXPECT_EQ(notified(*twig,
                  [&] {
                      twig->sizeIs(1);
                      twig->presentIs(true);
                  }),
        (Ids{258, 263}));
}

// --- reflection ---

TEST(EntityTest, AttributesAreReadAndWrittenByReflection) {
    auto const leaf = Leaf::newEntity("leaf");
    U32 const seven = 7;
    EXPECT_EQ(notified(*leaf,
                  [&] {
                      EXPECT_EQ(
                          leaf->attributeOp(nullptr, attribute(*leaf, "size"), AttributeOp::set, nullptr, &seven), 0);
                  }),
        Ids{258});
    U32 read = 0;
    EXPECT_EQ(leaf->attributeOp(&read, attribute(*leaf, "size"), AttributeOp::get), 0);
    EXPECT_EQ(read, 7u);
}

TEST(EntityTest, PointerAttributeHoldsAReference) {
    auto const leaf = Leaf::newEntity("leaf");
    auto const peer = Leaf::newEntity("peer");
    EXPECT_EQ(leaf->attributeOp(nullptr, attribute(*leaf, "peer"), AttributeOp::set, nullptr, &peer), 0);
    EXPECT_EQ(leaf->peer(), peer);
    EXPECT_EQ(peer->references(), 2u);
    Ptr<Leaf> read;
    EXPECT_EQ(leaf->attributeOp(&read, attribute(*leaf, "peer"), AttributeOp::get), 0);
    EXPECT_EQ(read, peer);
    Ptr<Leaf> const none;
    EXPECT_EQ(leaf->attributeOp(nullptr, attribute(*leaf, "peer"), AttributeOp::set, nullptr, &none), 0);
    EXPECT_EQ(peer->references(), 2u);
}

TEST(EntityTest, MethodIsCalledByReflection) {
    auto const leaf = Leaf::newEntity("leaf");
    leaf->sizeIs(40);
    U32 const by = 2;
    void const* const arguments[] = {&by};
    U32 result = 0;
    EXPECT_EQ(leaf->attributeOp(&result, attribute(*leaf, "grown"), AttributeOp::call, nullptr, arguments), 0);
    EXPECT_EQ(result, 42u);
}

TEST(EntityTest, DerivedTypeAnswersItsBasesAttributes) {
    auto const twig = Twig::newEntity("twig");
    U32 const seven = 7;
    EXPECT_EQ(twig->attributeOp(nullptr, attribute(*twig, "size"), AttributeOp::set, nullptr, &seven), 0);
    EXPECT_EQ(twig->size(), 7u);
    bool const present = true;
    EXPECT_EQ(twig->attributeOp(nullptr, attribute(*twig, "present"), AttributeOp::set, nullptr, &present), 0);
    EXPECT_TRUE(twig->present());
}

TEST(EntityTest, UnsupportedOperationsAndUnknownAttributesAreRefusedByCode) {
    auto const leaf = Leaf::newEntity("leaf");
    for (U32 op = 0; op < 40; ++op) {
        EXPECT_EQ(leaf->attributeOp(nullptr, VelAttr(), static_cast<AttributeOp>(op)), 1) << op;
        EXPECT_EQ(leaf->attributeOp(nullptr, VelAttr(typeOf<Leaf>(), 99), static_cast<AttributeOp>(op)), 2) << op;
        if (op == 0) continue;
        EXPECT_EQ(leaf->attributeOp(nullptr, attribute(*leaf, "cached"), static_cast<AttributeOp>(op)), 1) << op;
    }
    EXPECT_EQ(leaf->attributeOp(nullptr, typeOf<Twig>().attribute(0), AttributeOp::get), 2);
}

// --- types and text ---

TEST(EntityTest, EntityTypesDeriveFromOneAnother) {
    EXPECT_TRUE(typeOf<Twig>().isDerived(typeOf<Twig>()));
    EXPECT_TRUE(typeOf<Twig>().isDerived(typeOf<Leaf>()));
    EXPECT_TRUE(typeOf<Twig>().isDerived(typeOf<Entity>()));
    EXPECT_TRUE(typeOf<Dir>().isDerived(typeOf<Entity>()));
    EXPECT_FALSE(typeOf<Leaf>().isDerived(typeOf<Twig>()));
    EXPECT_FALSE(typeOf<Leaf>().isDerived(typeOf<Dir>()));
    EXPECT_FALSE(typeOf<Entity>().base());
}

TEST(EntityTest, TextFormNamesTypeAndPath) {
    auto const dir = Dir::newEntity("");
    auto const leaf = Leaf::newEntity("it's");
    dir->entryIs(leaf);
    Vel::StrepOut out;
    leaf->velPrint(out);
    EXPECT_EQ(out.view(), "Fixture::Leaf('/it\\'s')");
    Entity const* const entity = leaf.get();
    EXPECT_EQ(typeOf<Leaf>().glue().genericIfStrRep(entity, typeOf<Leaf>()), "Fixture::Leaf('/it\\'s')");
}

// --- creation ---

TEST(EntityTest, NewEntityArgsExceptionNamesTheType) {
    int argument = 0;
    void const* const arguments[] = {&argument};
    try {
        Leaf::velNewEntity("leaf", arguments);
        FAIL();
    } catch (Vel::NewEntityArgsException const& error) {
        EXPECT_STREQ(error.what(), "an entity of type Fixture::Leaf takes no constructor arguments but its name");
    }
}

TEST(EntityTest, MutatorArgNullPointerExceptionNamesTheAttribute) {
    try {
        Vel::throwMutatorArgNullPointerException(typeOf<Leaf>(), 260);
        FAIL();
    } catch (Vel::MutatorArgNullPointerException const& error) {
        EXPECT_STREQ(error.what(), "Fixture::Leaf.peer (attribute 260) takes no null pointer");
    }
    try {
        Vel::throwMutatorArgNullPointerException(typeOf<Leaf>(), 1000);
        FAIL();
    } catch (Vel::MutatorArgNullPointerException const& error) {
        EXPECT_STREQ(error.what(), "Fixture::Leaf.? (attribute 1000) takes no null pointer");
    }
}

TEST(EntityTest, CreationSwitchesNotificationOn) {
    EXPECT_TRUE(Leaf::velNewEntity("leaf", nullptr)->hasNotificationActive());
    EXPECT_TRUE(Nameless::velNewEntity("ignored", nullptr)->hasNotificationActive());
}

TEST(EntityTest, TypeWhoseConstructorNeedsMoreCannotBeCreated) {
    EXPECT_THROW(Demanding::velNewEntity("x", nullptr), Vel::TypeException);
    EXPECT_EQ(Demanding::newEntity("x", 4u)->size, 4u);
}

// --- memory ---

TEST(EntityTest, AllocationsAreCountedByType) {
    auto const& leaves = *typeOf<Leaf>().glue().allocTrack;
    auto const& twigs = *typeOf<Twig>().glue().allocTrack;
    EXPECT_STREQ(twigs.typeName(), "Fixture::Twig");
    auto const leavesBefore = leaves.live();
    auto const twigsBefore = twigs.live();
    auto const bytesBefore = twigs.liveBytes();
    auto const everBefore = twigs.allocations();
    {
        auto const a = Twig::newEntity("a");
        auto const b = Twig::newEntity("b");
        EXPECT_EQ(twigs.live(), twigsBefore + 2);
        EXPECT_EQ(twigs.liveBytes(), bytesBefore + 2 * sizeof(Twig));
        EXPECT_EQ(leaves.live(), leavesBefore);
    }
    EXPECT_EQ(twigs.live(), twigsBefore);
    EXPECT_EQ(twigs.liveBytes(), bytesBefore);
    EXPECT_EQ(twigs.allocations(), everBefore + 2);
}

TEST(EntityTest, ThrowingConstructorGivesItsMemoryBack) {
    struct Failing : Leaf {
        explicit Failing() : Leaf("failing") { throw 1; }
    };
    auto const& leaves = *typeOf<Leaf>().glue().allocTrack;
    auto const before = leaves.live();
    EXPECT_THROW(new Failing, int);
    EXPECT_EQ(leaves.live(), before);
}

}  // namespace
