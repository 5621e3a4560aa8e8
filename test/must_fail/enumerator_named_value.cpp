// expect first: My::Colour.*each attribute needs a name of its own
#include "Vel/describe/Enumeration.h"
#include "Vel/describe/Module.h"

namespace My {

enum class ColourName : Vel::U8 { red, green };

class Colour : public Vel::EnumerationOf<Colour, ColourName> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Colour>(
            "My::Colour", Vel::enumerator<ColourName::red>("red"), Vel::enumerator<ColourName::green>("value"));
    }
};

}  // namespace My

VEL_MODULE(My, 0000000000000000, My::Colour);
