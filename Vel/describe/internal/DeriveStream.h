#pragma once

#include "Vel/base/Exception.h"
#include "Vel/describe/StreamTable.h"
#include "Vel/describe/internal/DeriveOps.h"

// An entity type's StreamTable, derived from its description. It has the attributes that have a mutator, and the
// collections that are marked by Vel::references, Vel::instances or Vel::values.
namespace Vel::Detail {

template <class V> struct Pointee { using Type = void; };
template <class E> struct Pointee<Ptr<E>> { using Type = std::remove_const_t<E>; };

template <class A> constexpr bool isStreamed() {
    if constexpr (A::kind == AttributeKind::entityAttribute)
        return given<A::setter>;
    else
        return requires { A::members; };
}

inline void needEnd(NboAttrLog::In const& in) {
    if (in.left() != 0) throw StreamException("a value is followed by bytes that are not its own", in.offset());
}

// The functions of one attribute. T is the type that describes it.
template <class T, class A> struct StreamedAttribute {
    using Value = typename A::Value;

    static void serialize(StreamAttribute const&, NboAttrLog::SerializeSink& sink, AttributeId id, Entity const& entity,
        NboAttrLog::FlowConnection* to) {
        // Sends the stored member and does not call the accessor, which may compute, notify observers, or throw.
        sink.handleValueSerialization(id, static_cast<T const&>(entity).*A::member, to);
    }
    static void apply(StreamAttribute const&, Entity& entity, NboAttrLog::In& in) {
        Value const value = nextItem<Value>(in);
        needEnd(in);
        std::invoke(A::setter, static_cast<T&>(entity), value);
    }
};

template <class T, class A> struct StreamedPointer {
    using E = typename Pointee<typename A::Value>::Type;

    static Entity* target(StreamAttribute const&, Entity const& entity) {
        return const_cast<E*>((static_cast<T const&>(entity).*A::member).get());
    }
    static void targetIs(StreamAttribute const&, Entity& entity, Entity* target) {
        std::invoke(A::setter, static_cast<T&>(entity), typename A::Value(static_cast<E*>(target)));
    }
};

// The functions that collections of every kind have.
template <class T, class A> struct StreamedKeys {
    using Key = typename A::Key;
    using In = NboAttrLog::In;
    static constexpr bool keyIsText = std::is_same_v<Key, String>;

    template <class F> static void each(Entity const& entity, F f) {
        T const& object = static_cast<T const&>(entity);
        if constexpr (std::is_invocable_v<decltype(A::visit), T const&, F>)
            std::invoke(A::visit, object, f);
        else
            for (auto const& member : std::invoke(A::visit, object)) f(member);
    }
    static NboAttrLog::Bookmark* bookmark(StreamAttribute const&, Entity const& entity) {
        T const& object = static_cast<T const&>(entity);
        if constexpr (std::is_member_object_pointer_v<std::remove_const_t<decltype(A::visit)>>) {
            using Range = std::remove_cvref_t<decltype(object.*A::visit)>;
            if constexpr (NboAttrLog::OrderedRange<Range, Key>)
                return new NboAttrLog::OrderedBookmark<Key, Range>(object.*A::visit);
            else if constexpr (NboAttrLog::SteadyRange<Range>)
                return new NboAttrLog::SteadyBookmark<Key, Range>(object.*A::visit);
            else
                return allKeys(entity);
        } else if constexpr (std::is_invocable_v<decltype(A::visit), T const&>) {
            using Range = std::invoke_result_t<decltype(A::visit), T const&>;
            if constexpr (NboAttrLog::RangeOfParts<Range>)
                return new NboAttrLog::PartsBookmark<Key, Range>(std::invoke(A::visit, object));
            else
                return allKeys(entity);
        } else {
            return allKeys(entity);
        }
    }
    static NboAttrLog::Bookmark* allKeys(Entity const& entity) {
        auto made = std::make_unique<NboAttrLog::velFlowOutBookmarkDeq<Key>>();
        each(entity, [&](auto const& m) {
            if constexpr (requires { m.first; })
                made->add(m.first);
            else if constexpr (requires { m.key; })
                made->add(m.key);
            else if constexpr (A::members == Members::values)
                made->add(m);
            else
                made->add(m->name());
        });
        return made.release();
    }
    static std::size_t count(StreamAttribute const&, Entity const& entity) {
        if constexpr (given<A::count>) {
            return std::invoke(A::count, static_cast<T const&>(entity));
        } else {
            std::size_t number = 0;
            each(entity, [&](auto const&) { ++number; });
            return number;
        }
    }
    static void writeKey(StreamAttribute const&, NboAttrLog::Out& out, void const* key) {
        out << *static_cast<Key const*>(key);
    }
    static void skipKey(StreamAttribute const&, In& in) { nextItem<Key>(in); }
    static Key keyOf(In& in) {
        Key key = nextItem<Key>(in);
        needEnd(in);
        return key;
    }
    template <auto F, class Object>
    static constexpr bool byView = keyIsText&& std::is_invocable_v<decltype(F), Object&, std::string_view>;

    // Calls F with the key in `in`. If F takes a string_view, passes the bytes in place, without making a String.
    template <auto F, class Object> static decltype(auto) withKey(Object& object, In& in) {
        if constexpr (byView<F, Object>) {
            U32 const length = in.nextU32();
            U8 const* const text = in.take(length);
            if (!text) throw StreamException("a key ends too early", in.offset());
            needEnd(in);
            return std::invoke(F, object, std::string_view(reinterpret_cast<char const*>(text), length));
        } else {
            return std::invoke(F, object, keyOf(in));
        }
    }
    static void memberDel(StreamAttribute const&, Entity& entity, In& in) {
        withKey<A::del>(static_cast<T&>(entity), in);
    }
};

template <class T, class A> struct StreamedMembers : StreamedKeys<T, A> {
    using Keys = StreamedKeys<T, A>;
    using typename Keys::Key;
    using typename Keys::In;
    using E = typename Pointee<typename A::Value>::Type;

    template <class M> static E& memberOf(M const& m) {
        if constexpr (requires { m.second; })
            return *const_cast<E*>(static_cast<E const*>(m.second.get()));
        else if constexpr (requires { m.value; })
            return *const_cast<E*>(static_cast<E const*>(m.value.get()));
        else
            return *const_cast<E*>(static_cast<E const*>(m.get()));
    }
    static void visit(StreamAttribute const&, Entity const& entity, void (*f)(void*, Entity&), void* context) {
        Keys::each(entity, [&](auto const& m) { f(context, memberOf(m)); });
    }
    static Entity* member(StreamAttribute const&, Entity const& entity, In& in) {
        auto const found = Keys::template withKey<A::get>(static_cast<T const&>(entity), in);
        return const_cast<E*>(static_cast<E const*>(found.get()));
    }
    static void memberIs(StreamAttribute const&, Entity& entity, In& in, Entity& newMember) {
        T& object = static_cast<T&>(entity);
        Key const key = Keys::keyOf(in);
        E& typed = static_cast<E&>(newMember);
        typename A::Value const value(&typed);
        auto const needName = [&] {
            if constexpr (Keys::keyIsText)
                if (!(typed.name() == key)) throw StreamException("a member's name is not its key", 0);
        };
        if constexpr (A::members == Members::instances) {
            needName();
            if constexpr (given<A::adopt>)
                std::invoke(A::adopt, object, value);
            else
                throw StreamException("a collection that makes its members was given one", 0);
        } else if constexpr (std::is_invocable_v<decltype(A::set), T&, typename A::Value const&>) {
            needName();
            std::invoke(A::set, object, value);
        } else {
            std::invoke(A::set, object, key, value);
        }
    }
    static Entity* memberNew(StreamAttribute const&, Entity& entity, In& in) {
        if constexpr (A::members == Members::instances) {
            auto const made = std::invoke(A::set, static_cast<T&>(entity), Keys::keyOf(in));
            return made.get();
        } else {
            return nullptr;
        }
    }
};

template <class T, class A> struct StreamedValues : StreamedKeys<T, A> {
    using Keys = StreamedKeys<T, A>;
    using typename Keys::In;
    using Value = typename A::Value;

    static bool holds(StreamAttribute const&, Entity const& entity, In& in) {
        return Keys::template withKey<A::exists>(static_cast<T const&>(entity), in);
    }
    static void serializeKey(StreamAttribute const&, NboAttrLog::SerializeSink& sink, AttributeId id,
        Entity const& entity, std::span<U8 const> key, NboAttrLog::FlowConnection* to) {
        In in(key);
        Value const& value = Keys::template withKey<A::get>(static_cast<T const&>(entity), in);
        sink.handleKeySerialization(id, key, value, to);
    }
    // Does not set a value that is there already, so that observers are only notified of differences.
    static void applyKey(StreamAttribute const&, Entity& entity, In& in, In& items) {
        T& object = static_cast<T&>(entity);
        auto const key = Keys::keyOf(in);
        Value const value = nextItem<Value>(items);
        needEnd(items);
        if constexpr (offersEquality<Value>())
            if (std::invoke(A::exists, std::as_const(object), key) &&
                equalValues<Value>(std::invoke(A::get, std::as_const(object), key), value))
                return;
        std::invoke(A::set, object, key, value);
    }
};

template <class T, class A> constexpr void fillCollection(StreamAttribute& row) {
    using K = StreamedKeys<T, A>;
    row.functions.bookmark = &K::bookmark;
    row.functions.count = &K::count;
    row.functions.writeKey = &K::writeKey;
    row.functions.skipKey = &K::skipKey;
    row.functions.memberDel = &K::memberDel;
    if constexpr (A::members == Members::values) {
        static_assert(std::is_void_v<typename Pointee<typename A::Value>::Type>,
            "entities travel by Vel::references or Vel::instances");
        using F = StreamedValues<T, A>;
        row.kind = StreamKind::values;
        row.varies = fixedWidth<typename A::Value>() == 0;
        row.functions.holds = &F::holds;
        row.functions.serializeKey = &F::serializeKey;
        row.functions.applyKey = &F::applyKey;
    } else {
        using F = StreamedMembers<T, A>;
        row.kind = A::members == Members::instances ? StreamKind::instances : StreamKind::references;
        row.functions.visit = &F::visit;
        row.functions.member = &F::member;
        row.functions.memberIs = &F::memberIs;
        row.functions.memberNew = &F::memberNew;
        if constexpr (A::members == Members::instances) row.adopts = given<A::adopt>;
        row.keyIsName = K::keyIsText;
    }
}

template <class T, class A> constexpr StreamAttribute streamAttribute(AttributeId id) {
    StreamAttribute row{};
    row.id = id;
    row.localId = id;
    row.functions.type = [](StreamAttribute const&) { return TypeFunction<typename A::Value>::value(); };
    if constexpr (A::kind == AttributeKind::collection) {
        fillCollection<T, A>(row);
    } else if constexpr (!std::is_void_v<typename Pointee<typename A::Value>::Type>) {
        row.kind = StreamKind::pointer;
        row.functions.target = &StreamedPointer<T, A>::target;
        row.functions.targetIs = &StreamedPointer<T, A>::targetIs;
    } else {
        row.kind = StreamKind::value;
        row.varies = fixedWidth<typename A::Value>() == 0;
        row.functions.serialize = &StreamedAttribute<T, A>::serialize;
        row.functions.apply = &StreamedAttribute<T, A>::apply;
    }
    return row;
}

template <class T> constexpr std::size_t streamedCount() {
    if constexpr (std::is_void_v<T>) {
        return 0;
    } else {
        std::size_t count = streamedCount<BaseType<T>>();
        forEachAttribute<T>([&](auto i) { count += isStreamed<AttributeAt<T, decltype(i)::value>>(); });
        return count;
    }
}

template <class T, class Rows> constexpr void fillStreamed(Rows& rows, std::size_t& at) {
    if constexpr (!std::is_void_v<T>) {
        fillStreamed<BaseType<T>>(rows, at);
        forEachAttribute<T>([&](auto i) {
            constexpr std::size_t I = decltype(i)::value;
            using A = AttributeAt<T, I>;
            if constexpr (isStreamed<A>())
                rows[at++] = streamAttribute<T, A>(firstAttributeId<T>() + static_cast<AttributeId>(I));
        });
    }
}

template <class T> struct __attribute__((visibility("hidden"))) StreamRows {
    static constexpr auto make() {
        std::array<StreamAttribute, streamedCount<T>() + 1> rows{};
        std::size_t at = 0;
        fillStreamed<T>(rows, at);
        return rows;
    }
    static constexpr auto rows = make();
};

template <class T> StreamTable const& streamTable() {
    static constexpr StreamTable table = [] {
        StreamTable made{};
        made.attributes = {StreamRows<T>::rows.data(), streamedCount<T>()};
        made.takesName = std::is_constructible_v<T, String const&>;
        made.isCreatable =
            !std::is_abstract_v<T> && (std::is_constructible_v<T, String const&> || std::is_default_constructible_v<T>);
        if constexpr (requires { &T::velNewFlowOut; }) made.newFlowOut = &T::velNewFlowOut;
        return made;
    }();
    return table;
}

}  // namespace Vel::Detail
