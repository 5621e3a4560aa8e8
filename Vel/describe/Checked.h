#pragma once

#include "Vel/describe/Value.h"

#include <optional>
#include <span>
#include <utility>

// Parses and reads input from outside the process without exceptions. The result is the value, or what is wrong with
// the input and where.
namespace Vel {

struct CheckedError {
    String text;             // the same text that the exception has
    std::size_t offset = 0;  // place of the error, in bytes from the beginning of the input; 0 if it is not known
};

template <class T> class Checked {
public:
    Checked(T value) : value_(std::move(value)) {}
    Checked(CheckedError error) : error_(std::move(error)) {}

    explicit operator bool() const { return value_.has_value(); }
    T const& operator*() const { return *value_; }        // REQUIRES: it has a value
    T const* operator->() const { return &*value_; }      // REQUIRES: it has a value
    CheckedError const& error() const { return error_; }  // REQUIRES: it has no value
    T valueOr(T other) const { return value_.value_or(std::move(other)); }
    std::optional<T> const& optional() const { return value_; }

private:
    std::optional<T> value_;
    CheckedError error_;
};

namespace Detail {

template <class T, class F> Checked<T> checked(F make) {
    try {
        return make();
    } catch (ParseException const& e) {
        return CheckedError{e.text(), e.offset()};
    } catch (StreamException const& e) {
        return CheckedError{e.text(), e.offset()};
    } catch (Exception const& e) {
        return CheckedError{e.text(), 0};
    } catch (std::logic_error const& e) {  // of the standard library's conversions, in a parser of the type's own
        return CheckedError{e.what(), 0};
    }
}

}

// Parses like strepToValue(): all of `text` must be the value's text form. Takes the same kinds of texts.
template <class T> Checked<T> checkedStrepToValue(String const& text);
template <class T, TextLike S> Checked<T> checkedStrepToValue(S const& text) {
    return Detail::checked<T>([&] { return strepToValue<T>(viewOf(text)); });
}
template <class T> Checked<T> checkedStrepToValue(String const& text) { return checkedStrepToValue<T>(text.view()); }

// Reads a value from its bytes in the attribute log; no byte may be left over.
template <class T> Checked<T> checkedRead(std::span<U8 const> bytes) {
    return Detail::checked<T>([&] {
        NboAttrLog::In in(bytes);
        T value = Detail::nextItem<T>(in);
        if (in.left() != 0)
            throw StreamException(format("%zu bytes left over at offset %zu", in.left(), in.offset()), in.offset());
        return value;
    });
}

}
