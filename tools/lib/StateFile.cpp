#include "tools/lib/StateFile.h"

#include "tools/lib/EntityText.h"
#include "tools/lib/Names.h"
#include "tools/lib/ValueText.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

#include <algorithm>
#include <unordered_set>
#include <vector>

namespace Tool {

namespace {

using Vel::Dir;
using Vel::Entity;
using Vel::GenericValue;
using Vel::Ptr;
using Vel::StreamAttribute;
using Vel::StreamKind;
using Vel::VelType;

constexpr char blanks[] = " \t";

bool isEntityAttribute(StreamAttribute const& attribute) {
    return attribute.kind == StreamKind::pointer || attribute.holdsEntities();
}

bool isCreatable(VelType type) {
    return type.isEntity() && type.glue().newEntity && type.glue().stream && type.glue().stream().isCreatable;
}

std::vector<std::string> entityTypeNames() {
    std::vector<std::string> names;
    for (VelType const& type : Vel::Registry::types())
        if (isCreatable(type)) names.emplace_back(type.name());
    return names;
}

class Reader {
public:
    explicit Reader(StateListener const& listener) : listener_(listener) {}

    Ptr<Entity> read(std::string_view text) {
        while (!text.empty()) {
            auto const end = std::min(text.find('\n'), text.size());
            begin(text.substr(0, end));
            text.remove_prefix(std::min(end + 1, text.size()));
            listening([&] { takeLine(); });
        }
        for (Reference const& reference : references_) listening([&] { resolve(reference); });
        return root();
    }

private:
    struct Word {
        std::string_view text;
        std::size_t offset = 0;  // in the line
    };
    // A reference to an entity, which is set at the end, since the entity may be in a later line.
    struct Reference {
        Ptr<Entity> entity;
        StreamAttribute const* attribute;
        std::string key;
        Word target;
        std::size_t number;
        std::string_view line;
    };

    [[noreturn]] void fail(std::string const& text, std::size_t offset) const {
        throw StateMistake{text, number_, std::min(offset, line_.size()), std::string(line_)};
    }

    template <class F> void listening(F const& f) {
        try {
            f();
        } catch (StateMistake const& mistake) {
            if (!listener_.mistake) throw;
            listener_.mistake(mistake);
        }
    }
    Taken takenAt(std::size_t offset) const {
        return [this, offset](std::string const& note, std::size_t more) {
            if (listener_.taken) listener_.taken({note, number_, offset + more, std::string(line_)});
        };
    }

    // --- words ---

    void begin(std::string_view line) {
        if (line.ends_with('\r')) line.remove_suffix(1);
        line_ = line;
        at_ = 0;
        ++number_;
    }
    void skipBlanks() { at_ = std::min(line_.find_first_not_of(blanks, at_), line_.size()); }
    Word word() {
        skipBlanks();
        std::size_t const begin = at_;
        at_ = std::min(line_.find_first_of(blanks, at_), line_.size());
        return {line_.substr(begin, at_ - begin), begin};
    }
    Word rest() {
        skipBlanks();
        std::string_view text = line_.substr(at_);
        text = text.substr(0, text.find_last_not_of(blanks) + 1);
        return {text, at_};
    }

    void takeLine() {
        Word const path = word();
        if (path.text.empty() || path.text.starts_with('#')) return;
        if (auto const zero = line_.find('\0'); zero != std::string_view::npos)
            fail("a NUL has no place in a text; in a path it stands as %00", zero);
        if (!path.text.starts_with('/')) fail("a path expected, which begins with a \"/\"", path.offset);
        if (isBelowMissing(path.text)) return;
        Word const second = word();
        if (second.text.empty()) fail("a type or an attribute expected behind the path", line_.size());
        Word const behind = rest();
        // The line is an entity if the second word is the last one, or if it has a colon as type names do. Names of
        // attributes have no colon.
        bool const isEntity = behind.text.empty() || second.text.find(':') != std::string_view::npos;
        if (!isEntity) return takeAttribute(path, second);
        missing_.insert(path.text);
        takeEntity(path, second, behind);
        missing_.erase(path.text);
    }

    // Whether the line of the entity at the path, or of one above it, was skipped.
    bool isBelowMissing(std::string_view path) const {
        for (std::size_t end = missing_.empty() ? path.size() : 0; end < path.size();) {
            end = std::min(path.find('/', end + 1), path.size());
            if (missing_.contains(path.substr(0, end))) return true;
        }
        return false;
    }

    // --- entities ---

    Ptr<Entity> root() {
        if (!root_) root_ = Dir::newEntity("");
        return root_;
    }

    VelType entityType(Word const& name) const {
        VelType const type = Vel::Registry::type(name.text);
        if (type && isCreatable(type)) return type;
        std::string const text = shortened(shown(name.text), 80);
        if (type) fail(text + " is no type of entities that can be made", name.offset);
        fail("there is no type " + text +
                 orNearest(name.text, entityTypeNames(), "; libraries of further types are loaded by --module"),
            name.offset);
    }

    void takeEntity(Word const& path, Word const& typeName, Word const& behind) {
        VelType const type = entityType(typeName);
        std::string name;
        if (!behind.text.empty()) name = nameIn(behind);
        std::vector<Step> const steps = stepsOf(path.text);
        if (steps.empty()) return takeRoot(path, type);
        Ptr<Entity> const above = entityAbove(path, steps);
        std::size_t const offset = path.offset + (steps.size() > 1 ? steps[steps.size() - 2].end : 0) + 1;
        StepPlace const place = placeOf(*above, steps.back());
        if (!place.attribute) fail(noSuchPlace(*above), offset);
        if (entityAt(*above, place)) fail("this entity is there already", path.offset);
        if (name.empty() && place.attribute->isCollection() && place.attribute->keyIsName) name = place.key;
        guarded(offset, [&] { make(*above, place, type, name); });
    }

    void takeRoot(Word const& path, VelType type) {
        if (root_) fail("the root comes first, or is a Vel::Dir", path.offset);
        guarded(path.offset, [&] { root_ = Vel::ptr_cast<Entity>(type.glue().newEntity("", nullptr)); });
    }

    static std::string noSuchPlace(Entity const& entity) {
        return "a " + std::string(entity.fwkType().name()) + " has no such place for an entity";
    }

    // Returns the entity in which the last step of the path is. Makes missing entities above it as directories.
    Ptr<Entity> entityAbove(Word const& path, std::vector<Step> const& steps) {
        std::string_view const text = steps.size() > 1 ? path.text.substr(0, steps[steps.size() - 2].end) : "";
        if (text == lastPath_ && last_) return last_;
        Ptr<Entity> at = root();
        for (std::size_t i = 0; i + 1 < steps.size(); ++i) {
            std::size_t const offset = path.offset + (i > 0 ? steps[i - 1].end : 0) + 1;
            StepPlace const place = placeOf(*at, steps[i]);
            if (!place.attribute) fail(noSuchPlace(*at), offset);
            Ptr<Entity> next = entityAt(*at, place);
            if (!next) {
                if (at->fwkType() != Vel::typeOf<Dir>()) fail("this entity comes before what is below it", offset);
                guarded(offset, [&] { next = Vel::ptr_cast<Dir>(at)->createEntity("Vel::Dir", place.key); });
            }
            at = next;
        }
        lastPath_ = text;
        return last_ = at;
    }

    static void make(Entity& above, StepPlace const& place, VelType type, std::string const& name) {
        StreamAttribute const& attribute = *place.attribute;
        Vel::NboAttrLog::ensureCorrectType(type, attribute.type());
        std::string const key = attribute.isCollection() ? encodedKey(attribute, place.key) : "";
        Vel::NboAttrLog::In in(bytesOf(key));
        if (attribute.kind == StreamKind::instances && type == attribute.type()) {
            attribute.memberNew(above, in);
            return;
        }
        Ptr<Entity> const made = Vel::ptr_cast<Entity>(type.glue().newEntity(Vel::String(name), nullptr));
        if (attribute.isCollection())
            attribute.memberIs(above, in, *made);
        else
            attribute.targetIs(above, made.get());
    }

    // --- attributes ---

    Ptr<Entity> existing(Word const& path) {
        std::vector<Step> const steps = stepsOf(path.text);
        if (path.text == lastEntityPath_ && lastEntity_) return lastEntity_;
        Ptr<Entity> at = root();
        for (std::size_t i = 0; i < steps.size() && at; ++i) {
            Ptr<Entity> const next = entityAt(*at, placeOf(*at, steps[i]));
            std::size_t const offset = path.offset + (i > 0 ? steps[i - 1].end : 0) + 1;
            if (!next) fail("there is no such entity", offset);
            at = next;
        }
        lastEntityPath_ = path.text;
        return lastEntity_ = at;
    }

    void takeAttribute(Word const& path, Word const& name) {
        Ptr<Entity> const entity = existing(path);
        StreamAttribute const* const attribute = attributeNamed(entity->fwkType(), name.text);
        if (!attribute) fail(noSuchAttribute(entity->fwkType(), name.text), name.offset);
        std::string key;
        if (attribute->isCollection()) {
            skipBlanks();
            std::size_t const equals = line_.find(" = ", keyEnd());
            if (equals == std::string_view::npos) fail("a key expected, and \" = \" behind it", at_);
            key = keyIn(*entity, *attribute, {line_.substr(at_, equals - at_), at_});
            at_ = equals + 1;
        }
        Word const sign = word();
        if (sign.text != "=") fail("an \"=\" expected, between blanks", sign.offset);
        Word const value = rest();
        if (isEntityAttribute(*attribute))
            references_.push_back({entity, attribute, std::move(key), value, number_, line_});
        else if (attribute->isCollection())
            guarded(value.offset, [&] { takeItem(*entity, *attribute, key, value); });
        else
            guarded(value.offset, [&] {
                storedValueIs(*entity, *attribute, valueFrom(attribute->type(), value.text, takenAt(value.offset)));
            });
    }

    // Returns the offset of the quote that ends the string at at_, or at_ if there is no string.
    std::size_t keyEnd() const {
        if (at_ == line_.size() || line_[at_] != '\'') return at_;
        for (std::size_t i = at_ + 1; i < line_.size(); ++i) {
            if (line_[i] == '\'') return i;
            if (line_[i] == '\\') ++i;
        }
        return at_;
    }

    void takeItem(Entity& entity, StreamAttribute const& collection, std::string const& key, Word const& text) const {
        GenericValue const value = valueFrom(collection.type(), text.text, takenAt(text.offset));
        std::string const encoding = encodedKey(collection, key);
        Vel::NboAttrLog::In in(bytesOf(encoding));
        Vel::NboAttrLog::Out out;
        value.type().glue().write(out, value.data());
        Vel::NboAttrLog::In item(out.bytes());
        collection.applyKey(entity, in, item);
    }

    std::string keyIn(Entity const& entity, StreamAttribute const& collection, Word const& text) const {
        std::string key;
        guarded(text.offset, [&] {
            key = keyFromValue(
                collection, valueFrom(keyTypeOf(entity.fwkType(), collection), text.text, takenAt(text.offset)));
        });
        return key;
    }

    void resolve(Reference const& reference) {
        number_ = reference.number;
        line_ = reference.line;
        Word const& path = reference.target;
        if (isBelowMissing(path.text)) return;
        StreamAttribute const& attribute = *reference.attribute;
        bool const isNone = path.text == "None" && !attribute.isCollection();
        if (!isNone && !path.text.starts_with('/'))
            fail("the path of an entity expected" + std::string(attribute.isCollection() ? "" : ", or None"),
                path.offset);
        Ptr<Entity> const target = isNone ? nullptr : existing(path);
        if (entityAt(*reference.entity, {&attribute, reference.key}) == target.get()) return;
        guarded(path.offset, [&] {
            checkPlace(reference, target.get(), path);
            if (target) Vel::NboAttrLog::ensureCorrectType(target->fwkType(), attribute.type());
            if (!attribute.isCollection()) return attribute.targetIs(*reference.entity, target.get());
            std::string const key = encodedKey(attribute, reference.key);
            Vel::NboAttrLog::In in(bytesOf(key));
            attribute.memberIs(*reference.entity, in, *target);
        });
        lastEntity_ = last_ = nullptr;  // clears the caches, since the entity may have moved
    }

    // Fails if the target must not be in this collection: a collection that makes its members takes only entities that
    // have no parent, and an entity cannot be named within itself.
    void checkPlace(Reference const& reference, Entity const* target, Word const& path) const {
        if (!target || !reference.attribute->isCollection()) return;
        if (reference.attribute->kind == StreamKind::instances && target->parent())
            fail("this entity is in another place already", path.offset);
        if (!reference.attribute->keyIsName) return;
        for (Entity const* above = reference.entity.get(); above; above = above->parent())
            if (above == target) fail("an entity cannot be within itself", path.offset);
    }

    // --- mistakes ---

    // Parses a name. It must be in quotes, since a word without quotes after a type is more likely a mistake.
    std::string nameIn(Word const& word) const {
        std::string name;
        guarded(word.offset, [&] {
            VelType const type = Vel::typeOf<Vel::String>();
            bool const isQuoted = word.text.starts_with('\'');
            GenericValue const value =
                isQuoted ? valueFrom(type, word.text) : GenericValue(type, Vel::String(word.text));
            name = static_cast<Vel::String const*>(value.data())->stdString();
        });
        return name;
    }

    template <class F> void guarded(std::size_t offset, F const& f) const {
        try {
            f();
        } catch (Vel::ParseException const& error) {
            fail(error.text().stdString(), offset + error.offset());
        } catch (Vel::Exception const& error) {
            fail(error.text().stdString(), offset);
        }
    }

    StateListener const& listener_;
    Ptr<Entity> root_;
    std::unordered_set<std::string_view> missing_;  // paths of entities whose lines were skipped
    std::string_view line_;
    std::size_t at_ = 0, number_ = 0;
    std::vector<Reference> references_;
    // Caches of the last look-ups: lines about the same entity, or about entities in the same one, are often together.
    std::string_view lastPath_, lastEntityPath_;
    Ptr<Entity> last_, lastEntity_;
};

}  // namespace

Ptr<Entity> entitiesFromState(std::string_view text, StateListener const& listener) {
    return Reader(listener).read(text);
}

}  // namespace Tool
