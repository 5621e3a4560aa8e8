#include "../Mox/SimulationSkew.cpp"  // what that world needs of the types with several versions
