// The options of the address sanitiser in the harnesses, which find leaks themselves.
extern "C" const char* __asan_default_options();

extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:quarantine_size_mb=8:max_malloc_fill_size=0:malloc_context_size=4";
}
