#include "Mox/MaybeTypes.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/text/Scan.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string_view>

namespace Mox {

MaybeU63::MaybeU63(std::optional<U64> const& number) : value_(number.value_or(nullBit())) {
    if (number && (*number & nullBit()))
        Vel::throwRangeException(Vel::format("%lu does not fit into 63 bits", *number));
}

String MaybeU63::stringValue() const { return null() ? String("None") : Vel::unsignedToStrep(value_); }

void MaybeU63::print(Vel::StrepOut& out, MaybeU63 const& value) {
    if (value.null())
        out << "None";
    else
        out.endIs(Vel::Scan::writeUnsigned(out.room(Vel::Scan::maxUnsigned), value.value_));
}

void MaybeU63::stringValueIs(String const& s) & {
    auto it = s.begin();
    MaybeU63 const parsed = sequenceToValue(it, s.end(), static_cast<MaybeU63*>(nullptr));
    if (it != s.end()) Vel::throwRangeException("Invalid Mox::MaybeU63");
    *this = parsed;
}

MaybeU63 MaybeU63::quotient(MaybeU63 a, MaybeU63 b) {
    if (b.value_ == 0) {
        // Most processors raise this signal; the language leaves the result undefined. If a handler returns, the
        // process is aborted.
        std::raise(SIGFPE);
        std::abort();
    }
    return MaybeU63(a.value_ / b.value_);
}

MaybeU63 MaybeU63::parse(StrepIterator& it, StrepIterator const& end, MaybeU63* type) {
    return sequenceToValue(it, end, type);
}

MaybeU63 sequenceToValue(StrepIterator& it, StrepIterator const& end, MaybeU63*) {
    if (it == end) Vel::throwRangeException("Error deserializing Mox::MaybeU63");
    auto const left = static_cast<std::size_t>(end - it);
    bool const absent = std::string_view(it.charPtr(), std::min<std::size_t>(left, 4)) == "None";
    U64 word = MaybeU63::nullBit();
    if (absent)
        it += 4;
    else
        word = Vel::sequenceToValue(it, end, static_cast<U64*>(nullptr));
    if (it != end && (*it == 'L' || *it == 'l')) ++it;  // a long integer's suffix
    return MaybeU63(word);
}

}  // namespace Mox

VEL_MODULE(MaybeTypes, 5ce28a8f6c54f636, Mox::MaybeU63);
