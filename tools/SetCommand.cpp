#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/Clean.h"
#include "tools/lib/ValueText.h"

#include "Mount/Answer.h"

#include "Vel/base/Exception.h"

#include <nlohmann/json.hpp>

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

Values that begin with a dash go behind --.
Exit code 1 when the server does not take the value, 2 when the text is no such value.)~";

using Vel::GenericValue;
using Vel::StreamAttribute;
using Vel::WriteResult;

class SetCommand final : public LiveCommand {
public:
    explicit SetCommand(CLI::App& app) : LiveCommand(app, "set", "Change a value at a server", help) {
        neededArgument("PATH", where_.path, "Of the entity");
        neededArgument("ATTRIBUTE", attribute_, "What to change");
        argument("VALUE", value_, "As the text of its type");
        option("--if", expected_, "VALUE", "Only if this is the value now");
        option("--at", key_, "KEY", "At this key of a collection of values");
        flag("--delete", deletes_, "Delete the key");
        addTimeoutAndJson();
    }

    int run() override {
        if (deletes_ && (!key_ || value_ || expected_))
            throw Failure(badUsage, "--delete goes with --at KEY, and without a value");
        if (!deletes_ && !value_) throw Failure(badUsage, "VALUE is missing; \"mox set --help\" has examples");
        Found found(where_, where_.path, true);
        Change const change = changeOf(found.entity());
        if (!found.connection().client().replica().mayWrite())
            throw Failure(somethingWrong, where_.address +
                                              " is read-only for you: its server takes no changes, or not from "
                                              "this user (\"mox serve\" has --writable and --writer)");
        Vel::Ptr<Vel::Entity> const keep(&found.entity());  // it may go while the answer comes
        std::optional<GenericValue> const before = current(found.entity(), change);
        checkAnswer(found.connection(), change, answer(found, change));
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
            given(attribute.type(), expected_, "--if"), given(attribute.type(), value_, attribute_)};
    }

    Vel::WriteAnswer answer(Found& found, Change const& change) const {
        Connection& connection = found.connection();
        Vel::AttrLogReplica& replica = connection.client().replica();
        Vel::Entity const& entity = found.entity();
        Vel::AttributeId const id = change.attribute.id;
        Mount::Answer answer(connection.loop());
        try {
            if (!change.value) {
                replica.deleteKey(entity, id, *change.key, answer.told());
            } else if (!change.key && !change.expected) {
                replica.write(entity, id, *change.value, answer.told());
            } else if (!change.key) {
                replica.writeIf(entity, id, *change.expected, *change.value, answer.told());
            } else if (!change.expected) {
                replica.writeKey(entity, id, *change.key, *change.value, answer.told());
            } else {
                Vel::ValueRef const expected(*change.expected);
                replica.writeKeyIf(entity, id, *change.key, &expected, *change.value, answer.told());
            }
        } catch (Vel::Exception const& error) {
            throw Failure(somethingWrong, cleaned(error.text().view()));
        }
        return answer.wait(secondsFrom(where_.timeout));
    }

    void checkAnswer(Connection const& connection, Change const& change, Vel::WriteAnswer const& answer) const {
        switch (answer.result) {
        case WriteResult::done:
            return;
        case WriteResult::observerFailed:
            complain(attribute_ + " has changed, but an observer at the server failed: " + cleaned(answer.text.view()));
            return;
        case WriteResult::differs:
            throw Failure(somethingWrong, attribute_ + " is " + shortened(textOf(answer.value), 200) + ", and not " +
                                              shortened(textOf(change.expected), 200) + "; nothing has changed");
        case WriteResult::unknown:
            throw Failure(somethingWrong,
                connection.error().empty()
                    ? where_.address + ": no answer after " + Vel::format("%g", where_.timeout).stdString() +
                          " s, so it may have changed or not; --timeout S waits longer"
                    : withAddress(where_, cleaned(connection.error())) + ", so it may have changed or not");
        default:
            throw Failure(somethingWrong, "the server does not take it: " + cleaned(answer.text.view()));
        }
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

    std::string attribute_;  // its name
    std::optional<std::string> value_, expected_, key_;
    bool deletes_ = false;
};

}  // namespace

std::unique_ptr<Command> makeSet(CLI::App& app) { return std::make_unique<SetCommand>(app); }

}  // namespace Tool
