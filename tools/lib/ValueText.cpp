#include "tools/lib/ValueText.h"

#include "tools/lib/Clean.h"
#include "tools/lib/Output.h"

#include "Vel/base/Exception.h"
#include "Vel/text/Strep.h"

#include <cstdlib>
#include <optional>
#include <vector>

namespace Tool {

using Vel::GenericValue;
using Vel::VelAttr;
using Vel::VelType;

std::vector<VelAttr> fieldsOf(VelType type) {
    std::vector<VelAttr> fields;
    for (Vel::U32 i = 0; i < type.attributeCount(); ++i)
        if (type.attribute(i).kind() == Vel::AttributeKind::field) fields.push_back(type.attribute(i));
    return fields;
}

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Whether the values of the type are names: a number whose other attributes are constants (Vel/describe/Enumeration.h).
bool isEnumeration(VelType type) {
    Vel::U16 const flags = type.record().flags;
    if (!(flags & Vel::TypeFlag::number) || !(flags & Vel::TypeFlag::ownText)) return false;
    for (Vel::U32 i = 1; i < type.attributeCount(); ++i)
        if (type.attribute(i).kind() != Vel::AttributeKind::constant) return false;
    return type.attributeCount() > 1;
}

// Returns the strep of a whole number as a double, or an empty text if no double has exactly this value.
std::string doubleText(std::string const& digits) {
    bool const isNegative = digits.starts_with('-');
    std::string_view magnitude(digits);
    magnitude.remove_prefix(isNegative ? 1 : 0);
    while (magnitude.size() > 1 && magnitude.starts_with('0')) magnitude.remove_prefix(1);
    double const value = std::strtod(digits.c_str(), nullptr);
    bool const isExact = Vel::format("%.0f", isNegative ? -value : value).view() == magnitude;
    return isExact ? Vel::valueToStrep(value).stdString() : "";
}

// Rewrites a text into the text form of a type, if it differs from that only in ways that valueFrom() allows.
class Rewriting {
public:
    explicit Rewriting(std::string_view text) : text_(text) {}

    bool rewrite(VelType type) { return value(type, "", "") && at_ == text_.size(); }
    std::string const& result() const { return result_; }
    void tell(Taken const& taken) const {
        for (auto const& [note, offset] : notes_) taken(note, offset);
    }

private:
    // Rewrites one value. `behind` is the text that follows it in the record; empty if nothing follows.
    bool value(VelType type, std::string_view behind, std::string const& attribute) {
        if (type == Vel::typeOf<Vel::String>()) return string(behind, attribute);
        if (type == Vel::typeOf<double>() || type == Vel::typeOf<Vel::Seconds>()) return number(behind, attribute);
        if (isEnumeration(type) && !left().empty() && !isDigit(left()[0])) return string(behind, attribute);
        Vel::U16 const unlike = Vel::TypeFlag::scalar | Vel::TypeFlag::ownText;
        return type.record().flags & unlike ? asItStands(behind) : record(type, behind);
    }

    bool record(VelType type, std::string_view behind) {
        std::string const form = type.strepTemplate().stdString();
        std::string_view rest = form;
        for (VelAttr const& field : fieldsOf(type)) {
            std::size_t const sign = rest.find('%');
            if (sign == std::string_view::npos || !literal(rest.substr(0, sign))) return false;
            rest.remove_prefix(sign + (rest.substr(sign).starts_with("%lu") ? 3 : 2));
            std::string_view const next = rest.substr(0, rest.find('%'));
            if (!value(field.valueType(), next.empty() ? behind : next, field.name())) return false;
        }
        return rest.find('%') == std::string_view::npos && literal(rest);
    }

    bool literal(std::string_view wanted) {
        if (!left().starts_with(wanted)) return false;
        take(wanted.size());
        return true;
    }

    bool asItStands(std::string_view behind) {
        std::size_t const end = behind.empty() ? left().size() : left().find(behind);
        if (end == std::string_view::npos) return false;
        take(end);
        return true;
    }

    bool string(std::string_view behind, std::string const& attribute) {
        if (left().starts_with('\'')) return quoted();
        std::string_view const inRecords = behind.empty() ? "" : ",{}";
        std::size_t end = 0;
        while (end < left().size() && mayBeInWord(left()[end]) && inRecords.find(left()[end]) == std::string_view::npos)
            ++end;
        if (end == 0) return false;
        std::string const word(left().substr(0, end)), text = "'" + word + "'";
        replace(end, text, word + " is taken for the text " + text, attribute);
        return true;
    }
    static bool mayBeInWord(char c) {
        return static_cast<unsigned char>(c) > ' ' && c != 0x7F && c != '\'' && c != '"' && c != '\\';
    }

    bool quoted() {
        take(1);
        while (!left().empty()) {
            if (int const high = highByteOf(left()); high >= 0) {
                result_ += static_cast<char>(high);
                at_ += 4;
                continue;
            }
            char const c = left()[0];
            take(c == '\\' && left().size() > 1 ? 2 : 1);
            if (c == '\'') return true;
        }
        return false;
    }

    bool number(std::string_view behind, std::string const& attribute) {
        std::size_t end = left().starts_with('-') ? 1 : 0;
        std::size_t const first = end;
        while (end < left().size() && isDigit(left()[end])) ++end;
        std::string const digits(left().substr(0, end));
        std::string_view const then = left().substr(end);
        bool const isWhole = end > first && (behind.empty() ? then.empty() : then.starts_with(behind));
        std::string const text = isWhole ? doubleText(digits) : "";
        if (text.empty()) return asItStands(behind);
        replace(end, text, digits + " is taken for " + text, attribute);
        return true;
    }

    std::string_view left() const { return text_.substr(at_); }
    void take(std::size_t size) {
        result_ += left().substr(0, size);
        at_ += size;
    }
    void replace(std::size_t size, std::string const& by, std::string const& note, std::string const& attribute) {
        notes_.emplace_back((attribute.empty() ? "" : attribute + ": ") + note, at_);
        result_ += by;
        at_ += size;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::string result_;
    std::vector<std::pair<std::string, std::size_t>> notes_;
};

}  // namespace

std::string valueText(GenericValue const& value) { return cleaned(value.strep().view()); }

namespace {

// Rewrites and parses a text. Returns nothing if the rewritten text is the same, or if it does not parse.
std::optional<GenericValue> rewritten(VelType type, std::string_view text, Taken const& taken) {
    Rewriting rewriting(text);
    if (!rewriting.rewrite(type) || rewriting.result() == text) return std::nullopt;
    try {
        GenericValue value(type, Vel::String(rewriting.result()));
        if (taken) rewriting.tell(taken);
        return value;
    } catch (std::exception const&) {  // the caller reports what is wrong with the unchanged text
        return std::nullopt;
    }
}

// Type of the last text that had to be rewritten. In a file the next text probably needs it, too, and trying the
// unchanged text first would cost an exception.
VelType lastRewritten;

}  // namespace

// A text that rewriting changes is never in text form itself, so the order of the two attempts does not change the
// result.
GenericValue valueFrom(VelType type, std::string_view text, Taken const& taken) {
    if (type == lastRewritten)
        if (auto value = rewritten(type, text, taken)) return *std::move(value);
    try {
        return GenericValue(type, Vel::String(text));
    } catch (Vel::ParseException const&) {
        auto value = type == lastRewritten ? std::nullopt : rewritten(type, text, taken);
        if (!value) throw;
        lastRewritten = type;
        return *std::move(value);
    }
}

Taken remarking(std::string const& place) {
    return
        [place](std::string const& note, std::size_t) { remark((place.empty() ? "" : place + ": ") + cleaned(note)); };
}

GenericValue givenValue(VelType type, std::string const& text, int exitCode, std::string const& remarkPlace,
    std::string const& errorPlace) {
    std::string const what = errorPlace + "this is no " + type.name() + ": ";
    try {
        return valueFrom(type, text, remarking(remarkPlace));
    } catch (Vel::ParseException const& error) {
        throw Failure(exitCode, what + cleaned(error.text().view()) + "\n" + caretBelow(text, error.offset()));
    } catch (Vel::Exception const& error) {
        throw Failure(exitCode, what + cleaned(error.text().view()));
    }
}

}  // namespace Tool
