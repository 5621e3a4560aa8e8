#pragma once

#include <chrono>
#include <string>

// When things happen, told as the option --time wants it.
namespace Tool {

enum class TimeForm { local, utc, relative, none };
TimeForm timeFormFrom(std::string const& text);  // throws Failure (bad usage)

class Moments {
public:
    explicit Moments(TimeForm form) : form_(form) {}

    // Of now, to the millisecond; empty for no times.
    //     text()      2026-11-21 09:05:07.250     2026-11-21 08:05:07.250Z   +12.500
    //     isoText()   2026-11-21T09:05:07.250+01:00, with Z for UTC          PT12.500S
    std::string text() const;
    std::string isoText() const;

private:
    std::string sinceBegin() const;  // seconds
    std::string date(char const* form, bool withZone) const;

    TimeForm form_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace Tool
