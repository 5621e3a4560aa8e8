#pragma once

#include "Vel/describe/internal/DeriveTable.h"

#include <algorithm>

// A module's spelling, a text with everything in its descriptions, and the hash of that: its fingerprint. Both are made
// at compile time.
namespace Vel::Detail {

// FNV-1a with 64 bits (Fowler, Noll, Vo), over a module's spelling. The seed is chosen so that the hash of the Seqno
// module's spelling is b10c04b51b44f4ab, the fingerprint in that module's symbol.
class Fnv {
public:
    constexpr Fnv& operator<<(std::string_view text) {
        for (char const c : text) state_ = (state_ ^ static_cast<unsigned char>(c)) * 0x100000001b3ul;
        return *this;
    }
    constexpr U64 result() const { return state_; }

private:
    U64 state_ = 0x4efd2ecf4fc3cb67ul;
};

// Writes the spelling of a description at `to`. If that is null, only counts the characters.
class Speller {
public:
    constexpr explicit Speller(char* to) : to_(to) {}
    constexpr Speller& operator<<(std::string_view text) {
        if (to_) std::copy(text.begin(), text.end(), to_ + size_);
        size_ += text.size();
        return *this;
    }
    constexpr Speller& operator<<(U64 number) {
        char digits[20] = {};
        std::size_t first = 20;
        do digits[--first] = static_cast<char>('0' + number % 10);
        while (number /= 10);
        return *this << std::string_view(digits + first, 20 - first);
    }
    constexpr std::size_t size() const { return size_; }

private:
    char* to_;
    std::size_t size_ = 0;
};

// Returns "-" for an empty name, so that the number of words in a line of the spelling does not depend on it.
constexpr std::string_view orDash(std::string_view name) { return name.empty() ? std::string_view("-") : name; }

template <class T> constexpr void spellType(Speller& to) {
    unsigned form = 3;
    if constexpr (Described<T>) form = static_cast<unsigned>(DescriptionOf<T>::form);
    to << "type " << typeName<T>() << " form " << U32(form) << " base " << orDash(TypeNameOf<BaseType<T>>::value)
       << " flags " << U32(typeFlags<T>() & (TypeFlag::ownText | TypeFlag::ownStream | TypeFlag::hashable)) << " ops "
       << valueOps<T>() << "\n";
    forEachAttributeOf<T>([&](auto const& a, auto index) {
        using A = std::remove_cvref_t<decltype(a)>;
        to << "attribute " << firstAttributeId<T>() + static_cast<U32>(decltype(index)::value) << " " << a.name
           << " kind " << U32(A::kind) << " ops " << A::ops << " value " << orDash(TypeNameOf<typename A::Value>::value)
           << " key " << orDash(TypeNameOf<typename A::Key>::value) << " result "
           << orDash(TypeNameOf<typename A::Result>::value);
        if constexpr (requires { A::members; })
            to << (A::members == Members::values      ? " values"
                   : A::members == Members::instances ? " instances"
                                                      : " references");
        if constexpr (requires { A::number; }) to << " is " << A::number;
        to << "\n";
        forEachParameter(a,
            [&](std::string_view name, std::string_view type) { to << "parameter " << name << " " << type << "\n"; });
    });
}

// The spelling of one type, as data: a source sends it to readers that do not have the module.
template <class T> struct __attribute__((visibility("hidden"))) TypeSpelling {
    static constexpr std::size_t size = [] {
        Speller counted(nullptr);
        spellType<T>(counted);
        return counted.size();
    }();
    static constexpr auto text = [] {
        std::array<char, size> result{};
        Speller to(result.data());
        spellType<T>(to);
        return result;
    }();
};
template <class T> constexpr std::string_view typeSpelling() {
    return {TypeSpelling<T>::text.data(), TypeSpelling<T>::size};
}

template <class... Ts> constexpr U64 moduleFingerprint(std::string_view name) {
    Fnv hash;
    hash << "module " << name << "\n";
    (void)(hash << ... << typeSpelling<Ts>());
    return hash.result();
}

struct FingerprintDigits {
    char digits[17] = {};
    constexpr FingerprintDigits() = default;
    template <std::size_t N> consteval FingerprintDigits(char const (&text)[N]) {
        static_assert(N == 17, "the fingerprint in VEL_MODULE has 16 hexadecimal digits");
        std::copy(text, text + std::min<std::size_t>(N - 1, 16), digits);
    }
    constexpr std::string_view view() const { return {digits, 16}; }
    friend constexpr bool operator==(FingerprintDigits const&, FingerprintDigits const&) = default;
};

constexpr FingerprintDigits hexDigits(U64 value) {
    FingerprintDigits result;
    for (unsigned i = 0; i < 16; ++i) result.digits[i] = "0123456789abcdef"[(value >> (60 - 4 * i)) & 15];
    return result;
}

template <FingerprintDigits Digits> struct DigitsText { static constexpr std::string_view value = Digits.view(); };
template <FingerprintDigits Digits> using ShownDigits = ShownText<DigitsText<Digits>>;

// Returns the fingerprint that the module should have. For a module that has another error, returns the written one, so
// that the fingerprint causes no second error.
template <class... Ts> constexpr FingerprintDigits rightDigits(std::string_view name, FingerprintDigits written) {
    if constexpr (TypesOfModule<Ts...>::good)
        return hexDigits(moduleFingerprint<Ts...>(name));
    else
        return written;
}

template <class Right, class Written> struct Fingerprint {
    static constexpr bool isRight = std::is_same_v<Right, Written>;
};
template <class Right, class Written> constexpr auto checkFingerprint() {
    static_assert(Fingerprint<Right, Written>::isRight,
        "the module's description has changed: give VEL_MODULE the fingerprint that stands first");
    return Asserted();
}

}  // namespace Vel::Detail
