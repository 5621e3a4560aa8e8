#pragma once

#include <chrono>
#include <string>

// Times of events, in the form that the option --time asks for.
namespace Tool {

enum class TimeForm { local, utc, relative, none };
TimeForm timeFormFrom(std::string const& text);  // throws Failure (bad usage)

// Returns a time in seconds since 1970-01-01 00:00 UTC, to the millisecond, as local time: 2026-11-21 09:05:07.250
std::string localTime(double seconds);

class Moments {
public:
    explicit Moments(TimeForm form) : form_(form) {}

    // Return the present time to the millisecond, as local time, UTC, or the time since the beginning. Return an empty
    // text for TimeForm::none.
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
