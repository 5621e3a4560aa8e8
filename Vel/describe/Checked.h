#pragma once

#include "Vel/describe/Value.h"

#include <optional>
#include <span>
#include <utility>

// Parsing and reading what comes from outside the process, without exceptions: the value, or what is wrong and where.
namespace Vel {

struct CheckedError {
    String text;             // what the exception would have said
    std::size_t offset = 0;  // where, in bytes from the beginning of the input
};

template <class T> class Checked {
public:
    Checked(T value) : value_(std::move(value)) {}
    Checked(CheckedError error) : error_(std::move(error)) {}

    explicit operator bool() const { return value_.has_value(); }
    T const& operator*() const { return *value_; }        // REQUIRES: true
    T const* operator->() const { return &*value_; }      // REQUIRES: true
    CheckedError const& error() const { return error_; }  // REQUIRES: false
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
    } catch (std::logic_error const& e) {  // the standard library's conversions
        return CheckedError{e.what(), 0};
    }
}

}

// As strepToValue: the whole of `text` must be the value's text form.
template <class T> Checked<T> checkedStrepToValue(String const& text) {
    return Detail::checked<T>([&] { return strepToValue<T>(text); });
}

// The value that all of `bytes` encode in the attribute log.
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
