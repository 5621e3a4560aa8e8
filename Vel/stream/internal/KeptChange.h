#pragma once

#include "Vel/stream/WriteHistory.h"

#include <array>
#include <optional>
#include <span>
#include <vector>

namespace Vel {

class OneValue;
struct StreamAttribute;

// A change as a history keeps it: shared strings and bytes, of which change() makes texts. Used again and again, so
// that it keeps the memory of its values.
struct KeptChange {
    struct Value {
        std::vector<U8> bytes{};  // empty if there are more than WriteHistory::longestValue
        std::size_t size = 0;
        bool isThere = false;

        void set(std::span<U8 const> bytes);
    };

    U64 number = 0;
    double time = 0;
    String author{};
    String cause{};                 // of a change that the process made: whose request it handled; else empty
    std::array<String, 8> names{};  // of the entity and of those above it, as far as there is room
    std::size_t depth = 0;          // number of names; 0: `path` is its path
    String path{};
    std::optional<String> place{};  // see WriteHistory::place()
    VelType type{};
    AttributeId attribute = 0;
    Value key{}, before{}, wanted{};
    String target{};  // the path of the entity to which a pointer or a collection refers now
    WriteResult result = WriteResult::unknown;
    String text{};
    bool isAnswered = false;
    bool isOwn = false;

    void begin(U64 number, Entity const& entity, AttributeId attribute, String const& author);
    // Takes the present value of an attribute, or of a key of it. `buffer` is only for that.
    static void store(Value& to, StreamAttribute const& attribute, Entity const& entity, OneValue& buffer);
    static void store(
        Value& to, StreamAttribute const& attribute, Entity const& entity, std::span<U8 const> key, OneValue& buffer);
    void targetIs(Entity const* entity);  // null: none is there

    bool isOfSameAttribute(KeptChange const& other) const;
    U64 attributeHash() const;
    WriteHistory::Change change() const;

private:
    void pathIs(Entity const& entity);
    String pathText() const;
    void addValues(WriteHistory::Change& to, VelAttr attribute) const;
    static String textOf(Value const& value, std::span<VelType const> types);
};

}  // namespace Vel
