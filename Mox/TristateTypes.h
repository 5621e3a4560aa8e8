#pragma once

#include "Mox/Types.h"

#include <optional>
#include <type_traits>
#include <utility>

// Tristate values: a scalar together with whether it has been set. So a scalar that was never configured differs from
// every value, even from zero. A tristate has no mutators: valueSet and valueInvalid make a new one.
// Plain values: as thread-safe as a structure of their fields.
namespace Mox {

namespace Detail {

template <class S> struct TristateName;
template <> struct TristateName<bool> { static constexpr char const* value = "Mox::TristateBoolean"; };
template <> struct TristateName<String> { static constexpr char const* value = "Mox::TristateString"; };
template <> struct TristateName<F64> { static constexpr char const* value = "Mox::TristateF64"; };
template <> struct TristateName<U8> { static constexpr char const* value = "Mox::TristateU8"; };
template <> struct TristateName<U16> { static constexpr char const* value = "Mox::TristateU16"; };
template <> struct TristateName<U32> { static constexpr char const* value = "Mox::TristateU32"; };
template <> struct TristateName<U64> { static constexpr char const* value = "Mox::TristateU64"; };

// Return the text forms of scalars that are set.
VEL_API String tristateText(bool value);
VEL_API String tristateText(U64 value);
VEL_API String tristateText(F64 value);

}  // namespace Detail

template <class S> class VEL_API Tristate {
public:
    static constexpr bool isString = std::is_same_v<S, String>;

    constexpr Tristate() = default;
    constexpr Tristate(S value, bool isSet) : value_(std::move(value)), isSet_(isSet) {}
    constexpr Tristate(std::optional<S> const& value) : value_(value.value_or(S())), isSet_(value.has_value()) {}
    Tristate(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    Tristate(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr S const& value() const { return value_; }  // has a meaning only if isSet()
    constexpr bool isSet() const { return isSet_; }
    constexpr std::optional<S> optional() const { return isSet_ ? std::optional<S>(value_) : std::nullopt; }

    static constexpr Tristate valueSet(S value) { return Tristate(std::move(value), true); }
    static constexpr S valueDefault() { return S(); }
    static constexpr Tristate valueInvalid() { return Tristate(); }

    // Returns "unset", or the value: "true" or "false", decimal digits, or a double with six decimals.
    String toStrep() const requires(!isString) {
        if (!isSet_) return "unset";
        if constexpr (std::is_same_v<S, bool> || std::is_same_v<S, F64>)
            return Detail::tristateText(value_);
        else
            return Detail::tristateText(U64(value_));
    }
    // False for the default value only.
    operator bool() const requires isString { return !value_.empty() || isSet_; }

    // Field by field: two unset values with different scalars are unequal.
    friend bool operator==(Tristate const&, Tristate const&) = default;
    // There is no order. Deleted, since a TristateString would otherwise be compared by its conversion to bool.
    friend void operator<=>(Tristate const&, Tristate const&) = delete;

    static constexpr auto description() {
        auto const described = [](auto... more) {
            return Vel::record(Detail::TristateName<S>::value, Vel::readOnlyField<&Tristate::value_>("value"),
                Vel::readOnlyField<&Tristate::isSet_>("isSet"), Vel::method<&Tristate::valueSet>("valueSet", "value"),
                Vel::constant<&Tristate::valueDefault>("valueDefault"),
                Vel::method<&Tristate::valueInvalid>("valueInvalid"), more...);
        };
        if constexpr (isString)
            return described();
        else
            return described(Vel::method<&Tristate::toStrep>("toStrep"));
    }

private:
    S value_{};
    bool isSet_ = false;
};

using TristateBoolean = Tristate<bool>;
using TristateString = Tristate<String>;
using TristateF64 = Tristate<F64>;
using TristateU8 = Tristate<U8>;
using TristateU16 = Tristate<U16>;
using TristateU32 = Tristate<U32>;
using TristateU64 = Tristate<U64>;

}  // namespace Mox
