// expect first: My::Colour, My::ColourName.*an enumeration needs an unsigned type: enum class Name : Vel::U8
#include "Vel/describe/Enumeration.h"
#include "Vel/describe/Module.h"

namespace My {

enum class ColourName { red, green };

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
