#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/HexText.h"
#include "tools/lib/Input.h"
#include "tools/lib/Isolated.h"
#include "tools/lib/Names.h"
#include "tools/lib/Output.h"
#include "tools/lib/ValueText.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/GenericIf.h"

#include <nlohmann/json.hpp>

#include <csignal>

#include <unistd.h>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Reads a value from its text form, or from its bytes, and shows what it is: its attributes, its text and byte forms, its
hash, and whether it counts as true.

Examples:
  mox value --type Mox::Seqno16 7               a text that does not name its type
  mox value "Value('TYPE', ** {'count': 3})"    one that does
  mox value --type Vel::String "'two words'"    strings in single quotes, as in Python
  mox value --type Mox::Seqno32 --hex 0000002a  bytes, in hexadecimal; blanks and colons may stand between
  echo 7 | mox value --type U32 -               the text from standard input, without its last newline

A word needs no quotes where a string or a name is meant, and a whole number will do for a double, also inside of records;
--verbose tells what was taken for what. The text of a type: see "text form" in "mox types TYPE". Exit code 1 when text or bytes are not a value of the type.)~";

struct Options {
    std::optional<std::string> text;  // "-" means standard input
    std::optional<std::string> hex;   // "-" means standard input
    std::string type;                 // empty means the type that the text names
    bool json = false;
};

using Vel::AttributeKind;
using Vel::AttributeOp;
using Vel::GenericValue;
using Vel::VelAttr;
using Vel::VelType;

// --- input ---

// Reads standard input. Drops one newline at the end, which the shell's tools add.
std::string standardInput() {
    constexpr std::size_t most = 16u << 20;  // limit in bytes, more than any value needs
    Input input("-");
    std::optional<std::string> text = input.all(most);
    if (!text) throw Failure(somethingWrong, input.tooLarge(most) + ", which no value needs");
    if (text->ends_with('\n')) text->pop_back();
    return *std::move(text);
}

std::string input(std::string const& argument) { return argument == "-" ? standardInput() : argument; }

// Returns the T of a text that begins "Value('T", or an empty text for any other.
std::string_view typeNameIn(std::string_view text) {
    constexpr std::string_view begin = "Value('";
    if (!text.starts_with(begin)) return {};
    text.remove_prefix(begin.size());
    auto const end = text.find('\'');
    return end == std::string_view::npos ? std::string_view() : text.substr(0, end);
}

VelType valueTypeNamed(std::string_view name) {
    VelType const type = typeNamed(name);
    if (type.isEntity())
        throw Failure(badUsage, std::string(name) +
                                    " is an entity, which is no value and has no text form; \"mox types " +
                                    type.name() + "\" shows its attributes");
    return type;
}

VelType typeFor(Options const& options, std::string_view text) {
    if (!options.type.empty()) return valueTypeNamed(options.type);
    std::string_view const name = typeNameIn(text);
    if (name.empty())
        throw Failure(badUsage, "the text does not name its type, as Value('TYPE', ...) does; say --type TYPE "
                                "(\"mox types\" lists them)");
    return valueTypeNamed(name);
}

// Some text or bytes may break a precondition of a type's operations, which aborts the process. Then the handler
// explains it; the assertion was printed before. The answer is printed at the very end, so no part of it was.
extern "C" void explainAbort(int) {
    static constexpr char text[] = "mox: this breaks a precondition of the type, as the assertion above says\n";
    [[maybe_unused]] auto const written = ::write(STDERR_FILENO, text, sizeof text - 1);
    ::_exit(somethingWrong);
}

Failure badBytes(std::vector<unsigned char> const& bytes, std::string const& why, std::size_t offset) {
    return {somethingWrong, why + "\n" + caretBelow(inHex(bytes.data(), bytes.size()), 3 * offset)};
}

GenericValue decoded(VelType type, std::vector<unsigned char> const& bytes) {
    std::string const what = "these bytes are no " + std::string(type.name()) + ": ";
    Vel::NboAttrLog::In in(bytes);
    try {
        GenericValue value(type, in);
        if (in.left() == 0) return value;
    } catch (Vel::StreamException const& error) {
        throw badBytes(bytes, what + cleaned(error.text().view()), error.offset());
    } catch (Vel::RangeException const& error) {
        throw Failure(somethingWrong, what + cleaned(error.text().view()));
    }
    throw badBytes(bytes,
        Vel::format("%s left over: a %s ends after %zu of the %zu",
            in.left() == 1 ? "1 byte is" : (std::to_string(in.left()) + " bytes are").c_str(), type.name(), in.offset(),
            bytes.size())
            .stdString(),
        in.offset());
}

GenericValue valueOf(Options const& options) {
    if (options.text.has_value() == options.hex.has_value())
        throw Failure(badUsage,
            options.text ? "give a text or --hex, not both" : "give a text, --hex BYTES, or - for standard input");
    if (options.hex && options.type.empty()) throw Failure(badUsage, "--hex needs --type TYPE: bytes name no type");
    if (options.hex) {
        VelType const type = valueTypeNamed(options.type);
        return decoded(type, bytesFromHex(input(*options.hex)));
    }
    std::string const text = input(*options.text);
    return givenValue(typeFor(options, text), text, somethingWrong);
}

// --- answer ---

struct Field {
    VelAttr attr;
    std::string strep;
};

// Returns the text of an attribute, or nothing if it has no value. A computed attribute is read in a child process,
// since it may have preconditions, such as that a set is not empty.
std::optional<std::string> strepOf(GenericValue const& value, VelAttr attr) {
    auto const read = [&] {
        auto const part = value.get(attr);
        if (!part) throw Vel::TypeException("cannot be read");
        return part->strep().stdString();
    };
    if (attr.kind() == AttributeKind::derived) return isolated(read);
    return value.get(attr) ? std::optional(read()) : std::nullopt;
}

std::vector<Field> fieldsOf(GenericValue const& value) {
    std::vector<Field> fields;
    for (Vel::U32 i = 0; i < value.type().attributeCount(); ++i) {
        VelAttr const attr = value.type().attribute(i);
        bool const readable = attr.kind() != AttributeKind::collection && attr.answers(AttributeOp::get);
        if (!readable) continue;
        if (auto strep = strepOf(value, attr)) fields.push_back({attr, *std::move(strep)});
    }
    return fields;
}

std::string bytesHex(GenericValue const& value) {
    Vel::NboAttrLog::Out out;
    value.type().glue().write(out, value.data());
    return inHex(out.data(), out.size());
}

std::string bytesText(std::size_t size) { return std::to_string(size) + (size == 1 ? " byte" : " bytes"); }

char const* kindText(AttributeKind kind) {
    if (kind == AttributeKind::field) return "field";
    return kind == AttributeKind::constant ? "constant" : "derived";
}

std::string hashText(GenericValue const& value) { return Vel::format("%08x", value.hash()).stdString(); }

std::string textOf(GenericValue const& value) {
    constexpr std::size_t most = 4000;  // bytes of one entry; more are shortened
    VelType const type = value.type();
    auto const truth = value.test(AttributeOp::truth);
    Table table;
    table.add({"type", bold(type.name())});
    table.add({"module", std::string(type.moduleName()) + " " + fingerprintText(type.moduleFingerprint())});
    table.add({"text", shortened(valueText(value), most)});
    table.add({"bytes", shortened(bytesHex(value), most)});
    table.add({"encoded size", bytesText(value.attrLogSize())});
    table.add({"hash", type.isHashable() ? hashText(value) : "-"});
    table.add({"truth", !truth ? "-" : *truth ? "True" : "False"});
    Table fields("  ");
    fields.add({bold("attribute"), bold("kind"), bold("type"), bold("value")});
    auto const all = fieldsOf(value);
    for (auto const& [attr, strep] : all)
        fields.add({attr.name(), kindText(attr.kind()), attr.valueType().name(), shortened(cleaned(strep), most)});
    return table.text() + (all.empty() ? "" : "\n" + fields.text());
}

Json jsonOf(GenericValue const& value) {
    VelType const type = value.type();
    auto const truth = value.test(AttributeOp::truth);
    Json attributes = Json::array();
    for (auto const& [attr, strep] : fieldsOf(value))
        attributes.push_back({{"name", attr.name()}, {"kind", kindText(attr.kind())}, {"type", attr.valueType().name()},
            {"text", strep}});
    return {{"type", type.name()}, {"module", type.moduleName()},
        {"fingerprint", fingerprintText(type.moduleFingerprint())}, {"text", value.strep().stdString()},
        {"bytes", bytesHex(value)}, {"encodedSize", value.attrLogSize()},
        {"hash", type.isHashable() ? Json(value.hash()) : Json()}, {"truth", truth ? Json(*truth) : Json()},
        {"attributes", std::move(attributes)}};
}

class ValueCommand final : public Command {
public:
    explicit ValueCommand(CLI::App& app)
        : Command(app, "value", "A value from its text or bytes: all its forms", help) {
        argument("TEXT", options_.text, "The value's text form; - for standard input");
        option("--type", options_.type, "TYPE", "The value's type, when the text does not name it");
        option("--hex", options_.hex, "BYTES", "The value's bytes instead of a text; - for standard input");
        flag("--json", options_.json, "Answer in JSON");
    }

    int run() override {
        std::signal(SIGABRT, explainAbort);
        GenericValue const value = valueOf(options_);
        print(options_.json ? jsonText(jsonOf(value)) : textOf(value));
        return fine;
    }

private:
    Options options_;
};

}  // namespace

std::unique_ptr<Command> makeValue(CLI::App& app) { return std::make_unique<ValueCommand>(app); }

}  // namespace Tool
