// Defines a value type: its description gives it a text form, a parser, bytes, reflection and a registered name.
#include "Vel/describe/Module.h"

#include <iostream>

namespace Weather {

class Reading {
public:
    Reading() = default;
    Reading(Vel::U32 sensor, double celsius, Vel::Seconds at) : sensor_(sensor), celsius_(celsius), at_(at) {}

    double celsius() const { return celsius_; }
    double fahrenheit() const { return celsius_ * 9 / 5 + 32; }
    friend bool operator==(Reading const&, Reading const&) = default;

    static constexpr auto description() {
        return Vel::record("Weather::Reading", Vel::field<&Reading::sensor_>("sensor"),
            Vel::field<&Reading::celsius_>("celsius"), Vel::field<&Reading::at_>("at"),
            Vel::derived<&Reading::fahrenheit>("fahrenheit"));
    }

private:
    Vel::U32 sensor_ = 0;
    double celsius_ = 0;
    Vel::Seconds at_;
};

}  // namespace Weather

VEL_MODULE(Weather, 8943868cd502cad7, Weather::Reading);

int main() {
    Weather::Reading const reading(7, 21.5, 1700000000.125);
    Vel::String const text = Vel::valueToStrep(reading);
    std::cout << text << '\n';

    auto const back = Vel::strepToValue<Weather::Reading>(text);
    std::cout << "read back: " << Vel::valueToStrep(back) << ", " << back.fahrenheit() << " degrees Fahrenheit\n";

    bool refused = false;
    try {
        Vel::strepToValue<Weather::Reading>("Value('Weather::Reading', ** {'sensor': 7, 'celsius': warm");
    } catch (Vel::ParseException const& error) {
        std::cout << error.what() << '\n';
        refused = error.offset() == 54;
    }
    return back == reading && refused ? 0 : 1;
}
