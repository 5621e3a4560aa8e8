#include "Fixtures.h"

#include "Vel/describe/Module.h"

namespace Fixture {

String Words::print(Words const& w) {
    StrepOut out;
    out << "Words(" << valueToStrep(w.size_).view();
    for (auto const& [key, word] : w.words_)
        out << ", " << valueToStrep(key).view() << ": " << valueToStrep(word).view();
    out << ")";
    return out.str();
}

Words Words::scan(String::IteratorConst& it, String::IteratorConst const& end, Words*) {
    Words result;
    Vel::needString(it, end, "Words(");
    result.size_ = Vel::deserializeAttr<U16>(it, end, "size");
    while (it != end && *it != ')') {
        Vel::needString(it, end, ", ");
        U8 const key = Vel::deserializeAttr<U8>(it, end, "key");
        Vel::needString(it, end, ": ");
        result.words_[key] = Vel::deserializeAttr<U64>(it, end, "word");
    }
    Vel::needString(it, end, ")");
    return result;
}

void Words::write(Vel::NboAttrLog::Out& out, Words const& w) {
    out << w.size_;
    for (auto const& [key, word] : w.words_) out << key << word;
    out << U8(255);
}

void Words::read(Words& w, Vel::NboAttrLog::In& in) {
    w = Words();
    w.size_ = in.nextU16();
    for (U8 key = in.nextU8(); key != 255; key = in.nextU8()) w.words_[key] = in.nextU64();
}

MaybeNumber MaybeNumber::scan(String::IteratorConst& it, String::IteratorConst const& end, MaybeNumber*) {
    if (end - it >= 4 && std::string_view(it.charPtr(), 4) == "None") {
        it += 4;
        return nullBit();
    }
    return sequenceToValue(it, end, static_cast<U64*>(nullptr));
}

Leaf::Leaf(String const& name) : EntityOf(name) {}
Leaf::~Leaf() = default;
Twig::Twig(String const& name) : EntityOf(name) {}
Twig::~Twig() = default;
Nameless::Nameless() : EntityOf(String()) {}
Nameless::~Nameless() = default;
Demanding::Demanding(String const& name, U32 initialSize) : EntityOf(name), size(initialSize) {}
Demanding::~Demanding() = default;

}  // namespace Fixture

VEL_MODULE(Fixtures, c182c5812ed84934, Fixture::Chip, Fixture::ChipBits, Fixture::Words, Fixture::Sample,
    Fixture::Tally, Fixture::MaybeText, Fixture::MaybeNumber, Fixture::Stamp, Fixture::Moment, Fixture::Version,
    Fixture::Everything, Fixture::Leaf, Fixture::Twig, Fixture::Nameless, Fixture::Demanding);
