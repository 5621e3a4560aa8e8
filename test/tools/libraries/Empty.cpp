// A library without types.
extern "C" int emptyLibrary();
extern "C" int emptyLibrary() { return 0; }
