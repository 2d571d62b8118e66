// A library that a victim opens at run time, to crash in it.

extern "C" [[gnu::visibility("default"), gnu::noinline]] void crashInModule(volatile int* place) {
  *place = 1;
}
