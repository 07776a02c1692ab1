// Linked into every test that the thread sanitizer watches.

extern "C" const char* __tsan_default_suppressions();

// The count of references to an exception is kept inside libstdc++, which is not instrumented: the sanitizer
// takes the release of an exception that went from thread to thread for a race.
const char* __tsan_default_suppressions() {
  return "race:std::__exception_ptr::exception_ptr::_M_release\n";
}
