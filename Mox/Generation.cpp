#include "Mox/Generation.h"

#include "Vel/describe/Module.h"

namespace Mox {

GenerationEntity::GenerationEntity(String const& name) : EntityOf(name) {}
GenerationEntity::~GenerationEntity() = default;

Vel::Ptr<GenerationEntity> GenerationEntity::GenerationEntityIs(String const& name) {
    return generationEntityFactory(name);
}
Vel::Ptr<GenerationEntity> generationEntityFactory(String const& name) { return GenerationEntity::newEntity(name); }

}  // namespace Mox

VEL_MODULE(Generation, aceedaa2ef566248, Mox::Generation, Mox::GenerationEntity);
