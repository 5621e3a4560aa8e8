#include "Vel/base/Exception.h"

#include <cstring>

namespace Vel {

// The destructors are defined here so that the type information of each class exists once, in this library. Otherwise
// an exception thrown in one library might not be caught in another.
Exception::~Exception() = default;
RangeException::~RangeException() = default;
ParseException::~ParseException() = default;
StreamException::~StreamException() = default;
ErrnoException::~ErrnoException() = default;
NameInUseException::~NameInUseException() = default;
TypeException::~TypeException() = default;
UnhashableException::~UnhashableException() = default;
NewEntityArgsException::~NewEntityArgsException() = default;
MutatorArgNullPointerException::~MutatorArgNullPointerException() = default;
ReadOnlyException::~ReadOnlyException() = default;
ModuleException::~ModuleException() = default;

namespace {

String errnoText(int error) {
    char const* const description = ::strerrordesc_np(error);
    char const* const name = ::strerrorname_np(error);
    if (!description || !name) return format("Unknown error %d", error);
    return format("%s (%s)", description, name);
}

}  // namespace

ErrnoException::ErrnoException(int error) : Exception(errnoText(error)), error_(error) {}
ErrnoException::ErrnoException(int error, String const& subject)
    : Exception(subject + ": " + errnoText(error)), error_(error) {}
ErrnoException::ErrnoException(int error, String const& subject, String const& detail)
    : Exception(subject + ": " + errnoText(error) + "; " + detail), error_(error) {}

void throwRangeException(String const& text) { throw RangeException(text); }

}  // namespace Vel
