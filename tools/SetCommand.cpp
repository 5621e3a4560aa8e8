#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/Clean.h"
#include "tools/lib/ValueText.h"

#include "Vel/base/Exception.h"

#include <nlohmann/json.hpp>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Changes a value at a server, waits until the change has come back, and prints the value. The text is that of the
attribute's type: "mox types TYPE" shows it. The server must let you: "mox serve" has --writable.

Examples:
  mox set /tmp/s.sock /ql/cell cellId 2
  mox set /tmp/s.sock /ql/cell product chassis           a word; 1 will do for 1.0, too: --verbose says what is taken
  mox set /tmp/s.sock /ql/cell product "'two words'"     other strings in single quotes, as in Python
  mox set /tmp/s.sock /g generation "Value('Mox::Generation', ** {'id': 7, 'valid': True})"

Values that begin with a dash go behind --.
Exit code 1 when the server does not take the value, 2 when the text is no such value.)~";

using Vel::StreamAttribute;

class SetCommand final : public LiveCommand {
public:
    explicit SetCommand(CLI::App& app) : LiveCommand(app, "set", "Change a value at a server", help) {
        neededArgument("PATH", where_.path, "Of the entity");
        neededArgument("ATTRIBUTE", attribute_, "What to change");
        neededArgument("VALUE", value_, "As the text of its type");
        addTimeoutAndJson();
    }

    int run() override {
        Found found(where_, where_.path, true);
        StreamAttribute const& attribute = singleAttribute(found.entity(), attribute_, where_);
        if (attribute.kind != Vel::StreamKind::value)
            throw Failure(somethingWrong, attribute_ + " refers to an entity; only values can be set");
        Vel::GenericValue const value = givenValue(attribute.type(), value_, badUsage, attribute_);
        if (!found.connection().client().replica().mayWrite())
            throw Failure(somethingWrong, where_.address +
                                              " is read-only for you: its server takes no changes, or not from "
                                              "this user (\"mox serve\" has --writable and --writer)");
        // If the attribute has the value already, the server would send no change to wait for.
        bool const isSame = storedValue(found.entity(), attribute).strep() == value.strep();
        if (!isSame) change(found, attribute, value);
        if (json_)
            print(jsonText({{"path", normalPath(where_.path)}, {"attribute", attribute_}, {"type", typeName(attribute)},
                {"value", jsonValue(value)}, {"changed", !isSame}}));
        else
            print(valueText(value) + "\n");
        return fine;
    }

private:
    void change(Found& found, StreamAttribute const& attribute, Vel::GenericValue const& value) const {
        Connection& connection = found.connection();
        try {
            connection.client().replica().write(found.entity(), attribute.id, value);
        } catch (Vel::Exception const& error) {
            throw Failure(somethingWrong, cleaned(error.text().view()));
        }
        auto const current = [&] { return storedValue(found.entity(), attribute).strep(); };
        Vel::String const wanted = value.strep();
        connection.loop().runUntil(
            [&] { return !connection.error().empty() || current() == wanted; }, secondsFrom(where_.timeout));
        if (!(current() == wanted)) throw notTaken(connection, cleaned(current().view()));
    }

    Failure notTaken(Connection& connection, std::string const& now) const {
        std::string const& error = connection.error();
        if (!error.empty())
            return {somethingWrong,
                "the server does not take it: " + cleaned(withAddress(where_, error)) + adviceFor(connection.fault())};
        return {somethingWrong, where_.address + ": sent, but " + attribute_ + " is still " + shortened(now, 200) +
                                    " after " + Vel::format("%g", where_.timeout).stdString() + " s"};
    }

    std::string attribute_, value_;  // the attribute's name, and the value as text
};

}  // namespace

std::unique_ptr<Command> makeSet(CLI::App& app) { return std::make_unique<SetCommand>(app); }

}  // namespace Tool
