#include "Vel/describe/ModuleDescription.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/describe/internal/DeriveFingerprint.h"
#include "Vel/describe/internal/Records.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <set>
#include <string>

namespace Vel {

namespace {

using Attribute = TypeDescription::Attribute;
using TypeForm = TypeDescription::Form;

bool isPlain(char c) { return c > ' ' && c < 0x7F && c != '\'' && c != '\\'; }

// The lines of a spelling, word by word.
class Lines {
public:
    explicit Lines(std::string_view text) : text_(text) {}

    bool next() {  // goes to the next line; false at the end
        if (at_ >= text_.size()) return false;
        begin_ = at_;
        ++number_;
        std::size_t const end = text_.find('\n', at_);
        if (end == std::string_view::npos) fail("a line without an end");
        line_ = text_.substr(at_, end - at_);
        at_ = end + 1;
        return true;
    }
    std::size_t begin() const { return begin_; }  // offset of the line
    std::size_t end() const { return at_; }       // offset of the line after it
    bool startsWith(std::string_view word) const {
        return line_.starts_with(word) && line_.size() > word.size() && line_[word.size()] == ' ';
    }
    bool hasMore() const { return !line_.empty(); }

    std::string_view word() {
        std::size_t const space = line_.find(' ');
        std::string_view const found = line_.substr(0, space);
        if (found.empty() || space == line_.size() - 1) fail("a word is missing");
        line_ = space == std::string_view::npos ? std::string_view() : line_.substr(space + 1);
        return found;
    }
    void literal(std::string_view wanted) {
        if (line_.empty() || word() != wanted) fail("expected \"" + std::string(wanted) + "\"");
    }
    U64 number(U64 most) {
        std::string_view const digits = word();
        U64 value = 0;
        auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        bool const canonical = digits.size() == 1 || digits[0] != '0';
        if (error != std::errc() || end != digits.data() + digits.size() || !canonical || value > most)
            fail("expected a number of at most " + std::to_string(most));
        return value;
    }
    String name() {
        std::string_view const found = word();
        if (found == "-" || found.size() > ModuleDescription::longestName || !std::ranges::all_of(found, isPlain))
            fail("expected a name");
        return found;
    }
    String nameOrNone() {
        if (line_ != "-" && !line_.starts_with("- ")) return name();
        word();
        return {};
    }
    String identifier() {
        String const found = name();
        if (!Detail::isIdentifier(found.view())) fail("expected an identifier");
        return found;
    }
    void end_() {
        if (!line_.empty()) fail("more words than belong there");
    }
    [[noreturn]] void fail(std::string const& why) const {
        throw ParseException(format("line %zu of a description: %s", number_, why.c_str()), begin_);
    }

private:
    std::string_view text_;
    std::string_view line_;
    std::size_t at_ = 0;
    std::size_t begin_ = 0;
    std::size_t number_ = 0;
};

void checkAttribute(Lines const& lines, TypeDescription const& type, Attribute const& attribute) {
    AttributeKind const kind = attribute.kind;
    bool const isValue = !type.isEntity();
    if (type.form == TypeForm::scalar) lines.fail("a scalar has no attributes");
    if (isValue ? kind == AttributeKind::entityAttribute : kind == AttributeKind::field)
        lines.fail("an attribute of this kind belongs to another form of type");
    bool const isCollection = kind == AttributeKind::collection;
    if (isCollection != !attribute.keyType.empty()) lines.fail("a key belongs to a collection");
    if (attribute.members != Members::none && (!isCollection || isValue))
        lines.fail("only a collection of an entity is sent");
    if (attribute.number && kind != AttributeKind::constant) lines.fail("a number belongs to an enumerator");
    bool const isStored = isCollection || kind == AttributeKind::field || kind == AttributeKind::entityAttribute;
    if (isStored && attribute.valueType.empty()) lines.fail("a stored attribute has a type");
    for (Attribute const& other : type.attributes)
        if (other.name == attribute.name) lines.fail("a second attribute of this name");
}

Attribute parsedAttribute(Lines& lines, TypeDescription const& type) {
    Attribute attribute;
    lines.literal("attribute");
    attribute.id = static_cast<AttributeId>(lines.number(std::numeric_limits<U32>::max() >> 2));
    AttributeId const least = type.isEntity() ? firstEntityAttributeId : firstValueAttributeId;
    bool const inOrder = type.attributes.empty() ? (type.isEntity() ? attribute.id >= least : attribute.id == least)
                                                 : attribute.id == type.attributes.back().id + 1;
    if (!inOrder) lines.fail("an attribute's number out of order");
    attribute.name = lines.identifier();
    lines.literal("kind");
    attribute.kind = static_cast<AttributeKind>(lines.number(static_cast<U64>(AttributeKind::entityAttribute)));
    lines.literal("ops");
    attribute.ops = static_cast<U32>(lines.number(0x3FFFFF));
    lines.literal("value");
    attribute.valueType = lines.nameOrNone();
    lines.literal("key");
    attribute.keyType = lines.nameOrNone();
    lines.literal("result");
    attribute.resultType = lines.nameOrNone();
    constexpr std::pair<std::string_view, Members> marks[] = {
        {"references", Members::references}, {"instances", Members::instances}, {"values", Members::values}};
    while (lines.hasMore()) {
        std::string_view const word = lines.word();
        auto const* const mark = std::ranges::find(marks, word, &std::pair<std::string_view, Members>::first);
        if (mark != std::end(marks) && attribute.members == Members::none && !attribute.number)
            attribute.members = mark->second;
        else if (word == "is" && !attribute.number)
            attribute.number = lines.number(std::numeric_limits<U64>::max());
        else
            lines.fail("more words than belong there");
    }
    checkAttribute(lines, type, attribute);
    return attribute;
}

TypeDescription parsedType(Lines& lines) {
    TypeDescription type;
    lines.literal("type");
    type.name = lines.name();
    lines.literal("form");
    type.form = static_cast<TypeForm>(lines.number(static_cast<U64>(TypeForm::scalar)));
    lines.literal("base");
    type.base = lines.nameOrNone();
    lines.literal("flags");
    type.flags = static_cast<U16>(lines.number(0xFFFF));
    if (type.flags & ~(TypeFlag::ownText | TypeFlag::ownStream | TypeFlag::hashable)) lines.fail("unknown flags");
    lines.literal("ops");
    type.ops = static_cast<U32>(lines.number(0x3FFFFF));
    lines.end_();
    if (!type.base.empty() && (!type.isEntity() || type.base == type.name))
        lines.fail("a type that can't have this base");
    return type;
}

void checkType(Lines const& lines, TypeDescription const& type) {
    if (type.form != TypeForm::record && type.form != TypeForm::number) return;
    if (type.flags & TypeFlag::ownStream) return;
    auto const fields = std::ranges::count(type.attributes, AttributeKind::field, &Attribute::kind);
    if (fields == 0) lines.fail("the type before has no fields");
    if (type.form == TypeForm::number && fields != 1) lines.fail("the number before has several fields");
}

}  // namespace

bool TypeDescription::isEnumeration() const {
    if (form != TypeForm::number || !(flags & TypeFlag::ownText) || flags & TypeFlag::ownStream) return false;
    if (attributes.size() < 2 || attributes.front().kind != AttributeKind::field) return false;
    return std::all_of(
        attributes.begin() + 1, attributes.end(), [](Attribute const& a) { return a.number.has_value(); });
}

ModuleDescription ModuleDescription::parsed(std::string_view spelling) {
    if (spelling.size() > longestSpelling)
        throw ParseException(format("a description of more than %zu bytes", longestSpelling), 0);
    Lines lines(spelling);
    if (!lines.next()) lines.fail("an empty description");
    ModuleDescription module;
    module.fingerprint = fingerprintOf(spelling);
    lines.literal("module");
    module.name = lines.name();
    lines.end_();
    std::set<std::string_view> names;  // of the types: views of `spelling`
    std::size_t typeBegin = 0;
    auto const endType = [&](std::size_t at) {
        if (module.types.empty()) return;
        checkType(lines, module.types.back());
        module.types.back().spelling = spelling.substr(typeBegin, at - typeBegin);
    };
    while (lines.next()) {
        if (lines.startsWith("type")) {
            endType(lines.begin());
            typeBegin = lines.begin();
            module.types.push_back(parsedType(lines));
            std::size_t const nameAt = typeBegin + std::string_view("type ").size();
            if (!names.insert(spelling.substr(nameAt, module.types.back().name.size())).second)
                lines.fail("a second type of this name");
            continue;
        }
        if (module.types.empty()) lines.fail("expected a type");
        std::vector<Attribute>& attributes = module.types.back().attributes;
        if (lines.startsWith("parameter")) {
            if (attributes.empty() || attributes.back().parameters.size() >= maxParameters)
                lines.fail("a parameter without a place");
            lines.word();
            String const name = lines.identifier();
            attributes.back().parameters.push_back({name, lines.name()});
            lines.end_();
        } else {
            if (attributes.size() >= mostAttributes) lines.fail("too many attributes");
            attributes.push_back(parsedAttribute(lines, module.types.back()));
        }
    }
    if (module.types.empty()) lines.fail("a module without types");
    endType(lines.end());
    return module;
}

String ModuleDescription::spellingOf(ModuleHeader const& module) {
    std::string text = "module " + std::string(VelType(&module, 0).moduleName()) + "\n";
    for (U32 i = 0; i < module.typeCount; ++i) text.append(VelType(&module, i).glue().spelling);
    return text;
}

U64 ModuleDescription::fingerprintOf(std::string_view spelling) { return (Detail::Fnv() << spelling).result(); }

}  // namespace Vel
