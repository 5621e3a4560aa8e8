#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/Asking.h"
#include "tools/lib/Clean.h"
#include "tools/lib/ValueText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Changes a value at a server, waits for the answer, and prints the value that is there now. The text is that of the
attribute's type: "mox types TYPE" shows it. The server must let you: "mox serve" has --writable. If it rejects the
value, its own words say why.

Examples:
  mox set /tmp/s.sock /ql/cell cellId 2
  mox set /tmp/s.sock /ql/cell product chassis           a word; 1 will do for 1.0, too: --verbose says what is taken
  mox set /tmp/s.sock /ql/cell product "'two words'"     other strings in single quotes, as in Python
  mox set /tmp/s.sock /g generation "Value('Mox::Generation', ** {'id': 7, 'valid': True})"
  mox set /tmp/s.sock /ql/cell cellId 2 --if 1           only if it is still 1
  mox set /tmp/s.sock /cards card --at linecard3 "Value('Mox::Generation', ** {'id': 7, 'valid': True})"
  mox set /tmp/s.sock /cards card --at linecard3 --delete
  mox set /tmp/s.sock /heater from=15 to=20              several as one: if one is rejected, none changes
  mox set /tmp/s.sock /heater from=15 to=20 --if to=18   only if all that --if says is so

Values that begin with a dash go behind --.
Exit code 1 when the server does not take the value, 2 when the text is no such value.)~";

using Vel::GenericValue;
using Vel::StreamAttribute;
using Vel::WriteResult;

class SetCommand final : public LiveCommand {
public:
    explicit SetCommand(CLI::App& app) : LiveCommand(app, "set", "Change a value at a server", help) {
        neededArgument("PATH", where_.path, "Of the entity");
        neededArgument("ATTRIBUTE", attribute_, "What to change; or ATTRIBUTE=VALUE, and more of these behind it");
        argument("VALUE", value_, "As the text of its type");
        argument("MORE", more_, "Further ATTRIBUTE=VALUE");
        options("--if", expected_, "VALUE", "Only if this is the value now; ATTRIBUTE=VALUE if several change");
        option("--at", key_, "KEY", "At this key of a collection of values");
        flag("--delete", deletes_, "Delete the key");
        addTimeoutAndJson();
    }

    int run() override {
        if (attribute_.find('=') != std::string::npos) return runTogether();
        if (!more_.empty()) throw Failure(badUsage, "one VALUE for one ATTRIBUTE; several are ATTRIBUTE=VALUE each");
        if (expected_.size() > 1) throw Failure(badUsage, "--if comes once for one ATTRIBUTE");
        if (deletes_ && (!key_ || value_ || !expected_.empty()))
            throw Failure(badUsage, "--delete goes with --at KEY, and without a value");
        if (!deletes_ && !value_) throw Failure(badUsage, "VALUE is missing; \"mox set --help\" has examples");
        Found found(where_, where_.path, true);
        Change const change = changeOf(found.entity());
        Vel::Ptr<Vel::Entity> const keep(&found.entity());  // it may go while the answer comes
        std::optional<GenericValue> const before = current(found.entity(), change);
        Vel::WriteAnswer const answer = ask(found, where_,
            [&](Vel::AttrLogReplica& replica, Vel::WriteTold told) { send(replica, *keep, change, std::move(told)); });
        checkAnswer(answer, found.connection(), where_, "the change");
        if (answer.result == WriteResult::differs)
            throw Failure(somethingWrong, differsText(attribute_, answer, change.expected));
        std::optional<GenericValue> const now = current(found.entity(), change);
        if (textOf(now) != textOf(change.value))
            throw Failure(
                somethingWrong, "the server took it, but " + attribute_ + " is " + shortened(textOf(now), 200));
        show(change, now, textOf(before) != textOf(now));
        return fine;
    }

private:
    struct Change {
        StreamAttribute const& attribute;
        std::optional<GenericValue> key, expected, value;  // no value: the key is to go
    };

    Change changeOf(Vel::Entity const& entity) const {
        StreamAttribute const& attribute =
            key_ ? attributeOf(entity, attribute_) : singleAttribute(entity, attribute_, where_);
        if (key_ && attribute.kind != Vel::StreamKind::values)
            throw Failure(somethingWrong, attribute_ + " is no collection of values, so it has no keys to set");
        if (!key_ && attribute.kind != Vel::StreamKind::value)
            throw Failure(somethingWrong, attribute_ + " refers to an entity; only values can be set");
        auto const given = [&](Vel::VelType type, std::optional<std::string> const& text, std::string const& what) {
            return text ? std::optional(givenValue(type, *text, badUsage, what)) : std::nullopt;
        };
        return {attribute, key_ ? given(keyTypeOf(entity.fwkType(), attribute), key_, "--at") : std::nullopt,
            given(attribute.type(), expected_.empty() ? std::nullopt : std::optional(expected_[0]), "--if"),
            given(attribute.type(), value_, attribute_)};
    }

    static void send(
        Vel::AttrLogReplica& replica, Vel::Entity const& entity, Change const& change, Vel::WriteTold told) {
        Vel::AttributeId const id = change.attribute.id;
        if (!change.value) {
            replica.deleteKey(entity, id, *change.key, std::move(told));
        } else if (!change.key && !change.expected) {
            replica.write(entity, id, *change.value, std::move(told));
        } else if (!change.key) {
            replica.writeIf(entity, id, *change.expected, *change.value, std::move(told));
        } else if (!change.expected) {
            replica.writeKey(entity, id, *change.key, *change.value, std::move(told));
        } else {
            Vel::ValueRef const expected(*change.expected);
            replica.writeKeyIf(entity, id, *change.key, &expected, *change.value, std::move(told));
        }
    }

    static std::string differsText(
        std::string const& name, Vel::WriteAnswer const& answer, std::optional<GenericValue> const& expected) {
        return name + " is " + shortened(textOf(answer.value), 200) + ", and not " + shortened(textOf(expected), 200) +
               "; nothing has changed";
    }

    static std::optional<GenericValue> current(Vel::Entity const& entity, Change const& change) {
        if (!change.key) return storedValue(entity, change.attribute);
        return storedItem(entity, change.attribute, keyFromValue(change.attribute, *change.key));
    }
    static std::string textOf(std::optional<GenericValue> const& value) {
        return value ? valueText(*value) : "not there";
    }

    void show(Change const& change, std::optional<GenericValue> const& now, bool changed) const {
        if (!json_) return print(now ? valueText(*now) + "\n" : "");
        Json json{{"path", normalPath(where_.path)}, {"attribute", attribute_}, {"changed", changed}};
        if (change.key) json["key"] = jsonValue(*change.key);
        if (now) {
            json["type"] = now->type().name();
            json["value"] = jsonValue(*now);
        }
        print(jsonText(json));
    }

    // --- several values as one ---

    struct One {
        std::string name;
        StreamAttribute const& attribute;
        GenericValue value;
        std::optional<GenericValue> expected{};
    };

    int runTogether() {
        if (key_ || deletes_) throw Failure(badUsage, "--at and --delete go with one ATTRIBUTE");
        std::vector<std::string> texts{attribute_};
        if (value_) texts.push_back(*value_);
        texts.insert(texts.end(), more_.begin(), more_.end());
        Found found(where_, where_.path, true);
        Vel::Ptr<Vel::Entity> const keep(&found.entity());  // it may go while the answer comes
        std::vector<One> const all = allOf(*keep, texts);
        std::string const before = stateOf(*keep, all);
        Vel::WriteAnswer const answer = ask(found, where_,
            [&](Vel::AttrLogReplica& replica, Vel::WriteTold told) { send(replica, *keep, all, std::move(told)); });
        check(answer, all, found);
        std::string const now = stateOf(*keep, all);
        if (!json_) return print(now), fine;
        Json json{{"path", normalPath(where_.path)}, {"changed", before != now}};
        for (One const& one : all) json["values"][one.name] = jsonValue(storedValue(*keep, one.attribute));
        print(jsonText(json));
        return fine;
    }

    // Splits "ATTRIBUTE=VALUE".
    static std::pair<std::string, std::string> assignment(std::string const& text) {
        auto const equals = text.find('=');
        if (equals == std::string::npos) throw Failure(badUsage, shown(text) + " is not ATTRIBUTE=VALUE");
        return {text.substr(0, equals), text.substr(equals + 1)};
    }

    std::vector<One> allOf(Vel::Entity const& entity, std::vector<std::string> const& texts) const {
        std::vector<One> all;
        for (std::string const& text : texts) {
            auto const [name, value] = assignment(text);
            StreamAttribute const& attribute = singleAttribute(entity, name, where_);
            if (attribute.kind != Vel::StreamKind::value)
                throw Failure(somethingWrong, name + " refers to an entity; only values can be set");
            for (One const& other : all)
                if (other.name == name) throw Failure(badUsage, name + " is given twice");
            all.push_back({name, attribute, givenValue(attribute.type(), value, badUsage, name)});
        }
        for (std::string const& text : expected_) {
            auto const parts = assignment(text);
            auto const one = std::ranges::find(all, parts.first, &One::name);
            if (one == all.end()) throw Failure(badUsage, "--if: " + shown(parts.first) + " is not to be changed");
            one->expected.emplace(givenValue(one->attribute.type(), parts.second, badUsage, "--if"));
        }
        return all;
    }

    static void send(
        Vel::AttrLogReplica& replica, Vel::Entity const& entity, std::vector<One> const& all, Vel::WriteTold told) {
        std::vector<Vel::ValueRef> expected;
        expected.reserve(all.size());  // the writes below point into it
        std::vector<Vel::ValueWrite> writes;
        for (One const& one : all) {
            if (one.expected) expected.emplace_back(*one.expected);
            writes.push_back({one.attribute.id, one.value, one.expected ? &expected.back() : nullptr});
        }
        replica.writeTogether(entity, writes, std::move(told));
    }

    void check(Vel::WriteAnswer answer, std::vector<One> const& all, Found& found) const {
        auto const about = std::ranges::find(all, answer.attribute, [](One const& one) { return one.attribute.id; });
        if (answer.result == WriteResult::differs && about != all.end())
            throw Failure(somethingWrong, differsText(about->name, answer, about->expected));
        if (about != all.end()) answer.text = Vel::String(about->name) + ": " + answer.text;
        checkAnswer(answer, found.connection(), where_, "the change");
    }

    // Returns a line for each of the attributes, as in a state file.
    static std::string stateOf(Vel::Entity const& entity, std::vector<One> const& all) {
        std::string text;
        for (One const& one : all) text += one.name + " = " + valueText(storedValue(entity, one.attribute)) + "\n";
        return text;
    }

    std::string attribute_;  // its name, or ATTRIBUTE=VALUE
    std::optional<std::string> value_, key_;
    std::vector<std::string> expected_, more_;
    bool deletes_ = false;
};

}  // namespace

std::unique_ptr<Command> makeSet(CLI::App& app) { return std::make_unique<SetCommand>(app); }

}  // namespace Tool
