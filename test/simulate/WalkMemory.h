#pragma once

// Memory that is put back as it was: what was made in it, and changed since, is what it was. That takes a tenth of
// making it anew. Of one program, mox_walk, all allocations come here.
//
// REQUIRES: nothing outside refers to what is in the memory, or counts references from there, when it is put back. What
// the libraries make once and keep for good has to be there before.
namespace WalkMemory {

void begin();    // from now on all is allocated here; what was there before is forgotten, and not destroyed
void end();      // and from now on elsewhere again
void keep();     // as it is now it will be put back
void restore();  // REQUIRES: keep() after the last begin()

}  // namespace WalkMemory
