#include "Vel/describe/Enumeration.h"

#include "Vel/text/Scan.h"

#include <string>

namespace Vel::Detail {

void printEnumeration(StrepOut& out, U64 number, std::span<EnumeratorName const> names) {
    for (EnumeratorName const& known : names)
        if (known.number == number) {
            out << "'" << known.name << "'";
            return;
        }
    out.endIs(Scan::writeUnsigned(out.room(Scan::maxUnsigned), number));
}

namespace {

// Whether `text` begins with the name in quotes.
bool beginsWith(std::string_view text, std::string_view name) {
    return text.size() >= name.size() + 2 && text[0] == '\'' && text.substr(1).starts_with(name) &&
           text[name.size() + 1] == '\'';
}

std::string listed(std::span<EnumeratorName const> names) {
    std::string list = "one of";
    for (EnumeratorName const& known : names) list.append(" '").append(known.name).append("',");
    list.pop_back();
    return list;
}

bool hasName(U64 number, std::span<EnumeratorName const> names) {
    for (EnumeratorName const& known : names)
        if (known.number == number) return true;
    return false;
}

}  // namespace

U64 parseEnumeration(
    String::IteratorConst& it, String::IteratorConst const& end, std::span<EnumeratorName const> names, U64 most) {
    std::string_view const text(it.charPtr(), static_cast<std::size_t>(end.charPtr() - it.charPtr()));
    for (EnumeratorName const& known : names)
        if (beginsWith(text, known.name)) {
            it.charPtrIs(it.charPtr() + known.name.size() + 2);
            return known.number;
        }
    U64 number = 0;
    char const* const after = Scan::readUnsigned(it.charPtr(), end.charPtr(), number);
    if (after && number <= most && !hasName(number, names)) {
        it.charPtrIs(after);
        return number;
    }
    throwParseException(it, end, listed(names));
}

}  // namespace Vel::Detail
