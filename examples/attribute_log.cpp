// The attribute log: values as bytes in network byte order, which are read in the order in which they were written.
#include "Mox/Cell.h"
#include "Mox/Seqno.h"

#include <cstdio>
#include <iostream>

int main() {
    Vel::NboAttrLog::Out out;
    out << Mox::Seqno32(258) << Cell::CellId(1) << Vel::String("roof") << true;
    for (Vel::U8 const byte : out.bytes()) std::printf("%02x ", unsigned(byte));
    std::printf("\n");

    Vel::NboAttrLog::In in(out.bytes());
    Mox::Seqno32 const seqno(&in, Vel::StreamBogon());
    Cell::CellId const cell(&in, Vel::StreamBogon());
    Vel::String const name = in.nextString();
    bool const flag = in.nextbool();
    bool const good = seqno == Mox::Seqno32(258) && cell == Cell::CellId(1) && name == "roof" && flag && in.left() == 0;

    // If a log ends too early, reading throws, and the position stays before the item.
    Vel::NboAttrLog::In cut(out.bytes().first(3));
    try {
        Mox::Seqno32 const never(&cut, Vel::StreamBogon());
    } catch (Vel::StreamException const& error) {
        std::cout << error.what() << '\n';
        return good && cut.offset() == 0 ? 0 : 1;
    }
    return 1;
}
