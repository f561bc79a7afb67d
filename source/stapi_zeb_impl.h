// Private functions of the public module, declared for the tests.
#ifndef STAPI_ZEB_IMPL_H
#define STAPI_ZEB_IMPL_H

namespace zeb {

// Initialises the library unless it is. Any number of threads may come here at once: one of them does it, and
// where it fails the next call tries again. Returns 0, -111, -121 or the failure of the list's lock (-2).
int stapiInit() noexcept;

// Copies a query string into a new block that the caller frees. Returns 0, -2 (missing or too long, the output
// is not written) or -1 (no memory, the output is null).
int dup2ASCIIString(const char* dataPtr, char** outputPtr) noexcept;

}  // namespace zeb

#endif
