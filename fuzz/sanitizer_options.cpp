// How the address sanitiser runs in the harnesses, which see to leaks themselves.
extern "C" const char* __asan_default_options();

extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:quarantine_size_mb=8:max_malloc_fill_size=0:malloc_context_size=4";
}
