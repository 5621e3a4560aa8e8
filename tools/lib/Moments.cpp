#include "tools/lib/Moments.h"

#include "tools/lib/Output.h"

#include "Vel/describe/Format.h"

#include <ctime>

namespace Tool {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

TimeForm timeFormFrom(std::string const& text) {
    constexpr std::pair<char const*, TimeForm> forms[] = {
        {"local", TimeForm::local}, {"utc", TimeForm::utc}, {"relative", TimeForm::relative}, {"none", TimeForm::none}};
    for (auto const& [name, form] : forms)
        if (text == name) return form;
    throw Failure(badUsage, "--time: " + shortened(shown(text), 80) + " is none of local, utc, relative and none");
}

std::string localTime(double seconds) {
    constexpr double latest = 253402300799;  // of the year 9999; a server may say anything
    if (!(seconds >= 0 && seconds <= latest)) return "?";
    auto const time = static_cast<long>(seconds * 1000);
    std::time_t const whole = time / 1000;
    std::tm parts{};
    ::localtime_r(&whole, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text + Vel::format(".%03ld", time % 1000).stdString();
}

std::string Moments::sinceBegin() const {
    auto const time = duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin_).count();
    return Vel::format("%ld.%03ld", static_cast<long>(time / 1000), static_cast<long>(time % 1000)).stdString();
}

// Returns the time now. `form` is a format of strftime(), to which milliseconds and the zone are appended.
std::string Moments::date(char const* form, bool withZone) const {
    auto const now = duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    std::time_t const seconds = now / 1000;
    std::tm parts{};
    if (form_ == TimeForm::utc)
        ::gmtime_r(&seconds, &parts);
    else
        ::localtime_r(&seconds, &parts);
    char text[64], zone[16];
    std::strftime(text, sizeof text, form, &parts);
    std::strftime(zone, sizeof zone, "%z", &parts);  // "+0130"
    std::string const all = text + Vel::format(".%03ld", static_cast<long>(now % 1000)).stdString();
    if (form_ == TimeForm::utc) return all + "Z";
    return withZone ? all + std::string(zone).insert(3, ":") : all;
}

std::string Moments::text() const {
    if (form_ == TimeForm::none) return "";
    return form_ == TimeForm::relative ? "+" + sinceBegin() : date("%Y-%m-%d %H:%M:%S", false);
}

std::string Moments::isoText() const {
    if (form_ == TimeForm::none) return "";
    return form_ == TimeForm::relative ? "PT" + sinceBegin() + "S" : date("%Y-%m-%dT%H:%M:%S", true);
}

}  // namespace Tool
