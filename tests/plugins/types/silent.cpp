// A library that lists no types.

extern "C" int plugSilent();
int plugSilent() { return 0; }
