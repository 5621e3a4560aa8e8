#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/Asking.h"
#include "tools/lib/Clean.h"
#include "tools/lib/ValueText.h"

#include <nlohmann/json.hpp>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Calls a method of an entity at a server, waits for it, and prints its result, if it has one. Each argument is the text
of its parameter's type: "mox types TYPE" shows the methods of a type, and these. The server must let you:
"mox serve" has --writable.

Examples:
  mox call /tmp/s.sock /heater shift 3
  mox call /tmp/s.sock /heater shift 3 --json

Only methods can be called whose parameters are values, and whose result is a value or nothing.
Arguments that begin with a dash go behind --.
Exit code 1 when the method fails or there is none, 2 when an argument is not what the method takes.)~";

using Vel::GenericValue;
using Vel::VelAttr;

// Returns "shift(by)".
std::string signatureOf(VelAttr method) {
    std::string text = std::string(method.name()) + "(";
    for (Vel::U32 i = 0; i < method.parameterCount(); ++i)
        text += (i == 0 ? "" : ", ") + std::string(method.parameterName(i));
    return text + ")";
}

class CallCommand final : public LiveCommand {
public:
    explicit CallCommand(CLI::App& app) : LiveCommand(app, "call", "Call a method of an entity at a server", help) {
        neededArgument("PATH", where_.path, "Of the entity");
        neededArgument("METHOD", method_, "What to call");
        argument("ARGUMENT", arguments_, "The method's arguments");
        addTimeoutAndJson();
    }

    int run() override {
        Found found(where_, where_.path, true);
        VelAttr const method = methodOf(found.entity());
        std::vector<GenericValue> const arguments = argumentsOf(method);
        std::vector<Vel::ValueRef> const given(arguments.begin(), arguments.end());
        Vel::WriteAnswer const answer = ask(found, where_, [&](Vel::AttrLogReplica& replica, Vel::WriteTold told) {
            replica.call(found.entity(), method.attributeId(), given, std::move(told));
        });
        checkAnswer(answer, found.connection(), where_, method_);
        show(answer);
        return fine;
    }

private:
    VelAttr methodOf(Vel::Entity const& entity) const {
        auto const method = entity.fwkType().attribute(method_);
        if (method && method->kind() == Vel::AttributeKind::method) return *method;
        throw Failure(somethingWrong, std::string(entity.fwkType().name()) + " has no method " + shown(method_));
    }

    std::vector<GenericValue> argumentsOf(VelAttr method) const {
        if (arguments_.size() != method.parameterCount())
            throw Failure(badUsage, signatureOf(method) + " takes " + std::to_string(method.parameterCount()) +
                                        " arguments, and not " + std::to_string(arguments_.size()));
        std::vector<GenericValue> values;
        for (Vel::U32 i = 0; i < method.parameterCount(); ++i) {
            Vel::VelType const type = method.parameterType(i);
            if (!type || type.isEntity())
                throw Failure(
                    somethingWrong, signatureOf(method) + " takes an entity, so it cannot be called from here");
            values.push_back(givenValue(type, arguments_[i], badUsage, method.parameterName(i)));
        }
        return values;
    }

    void show(Vel::WriteAnswer const& answer) const {
        if (!json_) return print(answer.value ? valueText(*answer.value) + "\n" : "");
        Json json{{"path", normalPath(where_.path)}, {"method", method_}};
        if (answer.value) {
            json["type"] = answer.value->type().name();
            json["result"] = jsonValue(*answer.value);
        }
        print(jsonText(json));
    }

    std::string method_;
    std::vector<std::string> arguments_;
};

}  // namespace

std::unique_ptr<Command> makeCall(CLI::App& app) { return std::make_unique<CallCommand>(app); }

}  // namespace Tool
