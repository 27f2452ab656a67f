// A shared library that is no feature module at all.
extern "C" int Unrelated() {
  return 1;
}
