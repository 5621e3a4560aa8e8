#pragma once

#include "Mox/Types.h"

#include "Vel/entity/Entity.h"

namespace Mox {

// A generation number and whether it is valid. A plain value: as thread-safe as a structure of its fields.
class VEL_API Generation {
public:
    constexpr Generation() = default;
    constexpr Generation(U32 id, bool valid) : id_(id), valid_(valid) {}
    Generation(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    Generation(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    static constexpr Generation null() { return Generation(); }  // id 0, not valid

    constexpr U32 id() const { return id_; }
    constexpr bool valid() const { return valid_; }

    friend constexpr bool operator==(Generation const&, Generation const&) = default;

    static constexpr auto description();

private:
    U32 id_ = 0;
    bool valid_ = false;
};

constexpr auto Generation::description() {
    return Vel::record("Mox::Generation", Vel::readOnlyField<&Generation::id_>("id"),
        Vel::readOnlyField<&Generation::valid_>("valid"), Vel::constant<&Generation::null>("null"));
}

// Publishes one current generation under a name.
class VEL_API GenerationEntity : public Vel::EntityOf<GenerationEntity> {
public:
    explicit GenerationEntity(String const& name);
    ~GenerationEntity() override;
    static Vel::Ptr<GenerationEntity> GenerationEntityIs(String const& name);  // the same as generationEntityFactory()

    Generation generation() const { return generation_; }
    void generationIs(Generation const& g) { velSet<&GenerationEntity::generation_>(g); }

    static constexpr auto description() {
        return Vel::entity(
            "Mox::GenerationEntity", Vel::attribute<&GenerationEntity::generation_, &GenerationEntity::generation,
                                         &GenerationEntity::generationIs>("generation"));  // 258
    }

private:
    Generation generation_;
};

VEL_API Vel::Ptr<GenerationEntity> generationEntityFactory(String const& name);

}  // namespace Mox
