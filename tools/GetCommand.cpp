#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Connection.h"
#include "tools/lib/Names.h"
#include "tools/lib/TreeLines.h"
#include "tools/lib/ValueText.h"

#include "Vel/Exception.h"

namespace Tool {

namespace {

using Vel::Entity;
using Vel::GenericValue;
using Vel::StreamAttribute;
using Vel::StreamKind;
using Vel::VelType;

StreamAttribute const& attributeOf(Entity const& entity, std::string const& name) {
    VelType const type = entity.fwkType();
    StreamAttribute const* const attribute = attributeNamed(type, name);
    if (attribute) return *attribute;
    auto const names = attributeNames(type);
    auto const near = nearest(name, names);
    std::string const text = std::string("a ") + type.name() + " has no attribute " + shortened(shown(name), 80);
    if (type.attribute(name)) throw Failure(somethingWrong, text + " that it sends, only " + joined(names, ", "));
    throw Failure(somethingWrong, text + (near.empty() ? names.empty() ? "" : ", only " + joined(names, ", ")
                                                       : "; did you mean " + alternatives(near) + "?"));
}

StreamAttribute const& oneOf(Entity const& entity, std::string const& name, LiveOptions const& options) {
    StreamAttribute const& attribute = attributeOf(entity, name);
    if (attribute.isCollection())
        throw Failure(somethingWrong, name + " is a collection: \"mox ls " + options.address + " " +
                                          normalPath(options.path) + "\" lists its members");
    return attribute;
}

// Of a value its type, of a reference what it refers to at most.
std::string typeName(StreamAttribute const& attribute) {
    VelType const type = attribute.type();
    return type ? type.name() : "?";
}

class Attributes {
public:
    explicit Attributes(Found& found) : found_(found), tree_(found.connection().root(), found.rootPath()) {}

    std::string text(StreamAttribute const& attribute) const {
        if (attribute.kind == StreamKind::value) return valueText(storedValue(found_.entity(), attribute));
        return referenceText(tree_, attribute.target(found_.entity()));
    }
    Json json(StreamAttribute const& attribute) const {
        if (attribute.kind == StreamKind::value) return jsonValue(storedValue(found_.entity(), attribute));
        return referenceJson(tree_, attribute.target(found_.entity()));
    }

private:
    Found& found_;
    EntityTree tree_;
};

void getAll(Found& found, GetOptions const& options) {
    Entity const& entity = found.entity();
    Attributes const attributes(found);
    Table table;
    table.add({bold("attribute"), bold("type"), bold("value")});
    Json json = Json::object();
    for (StreamAttribute const& attribute : streamTableOf(entity)->attributes) {
        if (attribute.isCollection()) continue;
        std::string const name = attributeName(entity.fwkType(), attribute.id);
        if (options.json)
            json[name] = attributes.json(attribute);
        else
            table.add({name, typeName(attribute), attributes.text(attribute)});
    }
    std::string const path = normalPath(options.path);
    if (options.json)
        print(jsonText({{"path", path}, {"type", entity.fwkType().name()}, {"attributes", std::move(json)}}));
    else
        print(path + " " + bold(entity.fwkType().name()) + "\n" + table.text());
}

void getOne(Found& found, GetOptions const& options) {
    StreamAttribute const& attribute = oneOf(found.entity(), options.attribute, options);
    Attributes const attributes(found);
    if (!options.json) return print(attributes.text(attribute) + "\n");
    print(jsonText({{"path", normalPath(options.path)}, {"attribute", options.attribute}, {"type", typeName(attribute)},
        {attribute.kind == StreamKind::value ? "value" : "target", attributes.json(attribute)}}));
}

GenericValue givenValue(SetOptions const& options, StreamAttribute const& attribute) {
    std::string const what = "this is no " + typeName(attribute) + ": ";
    try {
        return valueFrom(attribute.type(), options.value, remarking(options.attribute));
    } catch (Vel::ParseException const& error) {
        throw Failure(badUsage, what + cleaned(error.text().view()) + "\n" + caretBelow(options.value, error.offset()));
    } catch (Vel::RangeException const& error) {
        throw Failure(badUsage, what + cleaned(error.text().view()));
    }
}

Failure notTaken(SetOptions const& options, Connection& connection, std::string const& now) {
    std::string const& error = connection.error();
    if (!error.empty())
        return {
            somethingWrong, "the server does not take it: " + cleaned(withAddress(options, error)) + adviceFor(error)};
    return {somethingWrong, options.address + ": sent, but " + options.attribute + " is still " + shortened(now, 200) +
                                " after " + Vel::format("%g", options.timeout).stdString() + " s"};
}

}  // namespace

int runGet(GetOptions const& options) {
    Found found(options, options.path);
    if (options.attribute.empty())
        getAll(found, options);
    else
        getOne(found, options);
    return fine;
}

int runSet(SetOptions const& options) {
    Found found(options, options.path, true);
    Entity& entity = found.entity();
    StreamAttribute const& attribute = oneOf(entity, options.attribute, options);
    if (attribute.kind != StreamKind::value)
        throw Failure(somethingWrong, options.attribute + " refers to an entity; only values can be set");
    GenericValue const value = givenValue(options, attribute);
    Vel::String const wanted = value.strep();
    auto const current = [&] { return storedValue(entity, attribute).strep(); };
    Connection& connection = found.connection();
    Mount::Client& client = connection.client();
    if (!client.replica().mayWrite())
        throw Failure(somethingWrong, options.address +
                                          " is read-only for you: its server takes no changes, or not from "
                                          "this user (\"mox serve\" has --writable and --writer)");
    bool const isSame = current() == wanted;  // nothing would come back
    if (!isSame) {
        try {
            client.replica().write(entity, attribute.id, value);
        } catch (Vel::Exception const& error) {
            throw Failure(somethingWrong, cleaned(error.text().view()));
        }
        bool const isTaken = connection.loop().runUntil(
            [&] { return !connection.error().empty() || current() == wanted; }, secondsFrom(options.timeout));
        if (!isTaken || !(current() == wanted)) throw notTaken(options, connection, cleaned(current().view()));
    }
    if (options.json)
        print(jsonText({{"path", normalPath(options.path)}, {"attribute", options.attribute},
            {"type", typeName(attribute)}, {"value", jsonValue(value)}, {"changed", !isSame}}));
    else
        print(valueText(value) + "\n");
    return fine;
}

}  // namespace Tool
