#include "../Mox/SimulationWorld.cpp"  // a world of every entity type that changes at random, for both programs
