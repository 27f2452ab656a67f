// What LeakSanitizer is not to report. Linked into every test executable in which a file's transfer may find
// no receiver.
extern "C" const char* __lsan_default_suppressions();

// CXModem::SendFile keeps its buffer and the open file when the receiver never starts: that is how the engine
// is meant to behave. Everything else that leaks is an error.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:CXModem::SendFile\n";
}
