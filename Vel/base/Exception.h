#pragma once

#include "Vel/base/String.h"

#include <exception>

namespace Vel {

// Base of all the framework's exceptions; what() is the message.
class VEL_API Exception : public std::exception {
public:
    explicit Exception(String text) noexcept : text_(std::move(text)) {}
    Exception(Exception const&) noexcept = default;
    Exception& operator=(Exception const&) noexcept = default;
    ~Exception() override;

    char const* what() const noexcept override { return text_.charPtr(); }
    String const& text() const noexcept { return text_; }

private:
    String text_;
};

// A value is out of its range, or a text does not represent a value of the expected kind.
class VEL_API RangeException : public Exception {
public:
    using Exception::Exception;
    ~RangeException() override;
};

// A text that is not the string form of the expected value. The message shows the place.
class VEL_API ParseException : public RangeException {
public:
    ParseException(String text, std::size_t offset) noexcept : RangeException(std::move(text)), offset_(offset) {}
    ~ParseException() override;

    std::size_t offset() const noexcept { return offset_; }  // bytes from the beginning of the parsed string

private:
    std::size_t offset_;
};

// An attribute log ends too early, or holds bytes that no writer writes.
class VEL_API StreamException : public RangeException {
public:
    StreamException(String text, std::size_t offset) noexcept : RangeException(std::move(text)), offset_(offset) {}
    ~StreamException() override;

    std::size_t offset() const noexcept { return offset_; }  // bytes from the beginning of the input

private:
    std::size_t offset_;
};

// A system call failed, or a file or variable holds text that it must not hold (EINVAL).
class VEL_API ErrnoException : public Exception {
public:
    explicit ErrnoException(int error);                // "Permission denied (EACCES)"
    ErrnoException(int error, String const& subject);  // "/etc/product: Permission denied (EACCES)"
    ErrnoException(int error, String const& subject, String const& detail);  // the same with "; " and the detail
    ~ErrnoException() override;

    int error() const noexcept { return error_; }  // the errno value

private:
    int error_;
};

class VEL_API NameInUseException : public Exception {
public:
    using Exception::Exception;
    ~NameInUseException() override;
};

// An operation was applied to a value of the wrong type, or a type name is not registered.
class VEL_API TypeException : public Exception {
public:
    using Exception::Exception;
    ~TypeException() override;
};

// The hash of a value was requested whose type has none.
class VEL_API UnhashableException : public TypeException {
public:
    using TypeException::TypeException;
    ~UnhashableException() override;
};

// An entity was created through a directory with constructor arguments that its type does not take.
class VEL_API NewEntityArgsException : public Exception {
public:
    using Exception::Exception;
    ~NewEntityArgsException() override;
};

// A mutator was given a null entity pointer.
class VEL_API MutatorArgNullPointerException : public Exception {
public:
    using Exception::Exception;
    ~MutatorArgNullPointerException() override;
};

// A change was sent to a copy or a source that is read-only.
class VEL_API ReadOnlyException : public Exception {
public:
    using Exception::Exception;
    ~ReadOnlyException() override;
};

// A module descriptor was refused: it is malformed, or has a type that another module has registered.
class VEL_API ModuleException : public Exception {
public:
    using Exception::Exception;
    ~ModuleException() override;
};

[[noreturn]] VEL_API void throwRangeException(String const& text);

}  // namespace Vel
