// expect first: My::Colour.*each enumerator needs a value of its own
#include "Vel/describe/Enumeration.h"
#include "Vel/describe/Module.h"

namespace My {

enum class ColourName : Vel::U8 { red, green = 0 };

class Colour : public Vel::EnumerationOf<Colour, ColourName> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Colour>(
            "My::Colour", Vel::enumerator<ColourName::red>("red"), Vel::enumerator<ColourName::green>("green"));
    }
};

}  // namespace My

VEL_MODULE(My, 0000000000000000, My::Colour);
