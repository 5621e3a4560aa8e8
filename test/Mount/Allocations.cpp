#include "../Mox/Allocations.cpp"  // one way of counting for both programs
