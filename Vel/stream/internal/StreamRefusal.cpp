#include "Vel/stream/internal/StreamRefusal.h"

namespace Vel {

namespace {

struct Sentence {
    StreamFault fault;
    std::string_view begin, end;
};
constexpr Sentence sentences[] = {{StreamFault::nothingThere, "there is nothing at '", "'"},
    {StreamFault::noSuchModule, "the server has module ", ", and the client has no such module"},
    {StreamFault::otherVersion, "module ", " at the client"}};

}  // namespace

StreamRefusalException::~StreamRefusalException() = default;

StreamRefusal refusalOf(StreamFault fault, String const& about) {
    for (Sentence const& sentence : sentences)
        if (sentence.fault == fault) return {fault, String(sentence.begin) + about + String(sentence.end)};
    return {fault, about};
}

StreamFault faultOf(std::string_view text) {
    for (Sentence const& sentence : sentences)
        if (text.size() >= sentence.begin.size() + sentence.end.size() && text.starts_with(sentence.begin) &&
            text.ends_with(sentence.end))
            return sentence.fault;
    return StreamFault::other;
}

}  // namespace Vel
