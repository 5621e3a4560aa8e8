#pragma once

#include "Vel/base/Exception.h"
#include "Vel/base/String.h"
#include "Vel/text/NboAttrLog.h"

namespace Vel {

// The first two items of a hello.
inline constexpr U32 streamMagic = 0x56454C41;  // "VELA"
inline constexpr U16 streamVersion = 2;

// What a reader wants, in its hello: bits.
namespace HelloFlag {

inline constexpr U8 writes = 1;        // it wants to ask for changes
inline constexpr U8 descriptions = 2;  // modules that it does not have are to be described
inline constexpr U8 all = 3;

}  // namespace HelloFlag

// What a message `write` asks for: bits.
enum class WriteOp : U8 {
    set = 0,       // the value comes
    del = 1,       // the key is to go
    expected = 2,  // only if it is what comes before: a bool that says whether there is a value, and the value
};
inline constexpr U8 writeOps = 3;  // all bits
constexpr bool has(U8 ops, WriteOp op) { return (ops & static_cast<U8>(op)) != 0; }

inline void needEnd(NboAttrLog::In const& body) {
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
}

// Returns what the exception that is being handled says.
VEL_API String wordsOfHandled();

}  // namespace Vel
