#pragma once
// Checks shared by the fuzz targets: a failed one prints what broke and aborts, so the engine keeps the
// input as a crash.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "blockproc/detail/Utf8.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BLOCKPROC_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(BLOCKPROC_FUZZ_ASAN)
#define BLOCKPROC_FUZZ_ASAN 1
#endif

#ifdef BLOCKPROC_FUZZ_ASAN
extern "C" {
void* __asan_region_is_poisoned(void* begin, size_t size);
int __sanitizer_get_ownership(const volatile void* p);
size_t __sanitizer_get_allocated_size(const volatile void* p);
}
#endif

namespace blockproc::fuzz {

[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

inline void require(bool condition, const char* what) {
  if (!condition) fail(what);
}

inline void requireUtf8(std::string_view text, const char* what) {
  if (!utf8::isValid(text)) fail(what);
}

// Reads every byte of [data, data + size): under AddressSanitizer a byte outside a live allocation is
// reported at once; the sum keeps the reads from being optimised away.
inline void touch(const uint8_t* data, size_t size) {
  if (size == 0) return;
  volatile uint8_t sink = data[0];
  sink = static_cast<uint8_t>(sink + data[size - 1]);
#ifdef BLOCKPROC_FUZZ_ASAN
  if (__asan_region_is_poisoned(const_cast<uint8_t*>(data), size) != nullptr)
    fail("a byte of the area is not addressable");
#else
  uint8_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum = static_cast<uint8_t>(sum + data[i]);
  sink = static_cast<uint8_t>(sink + sum);
#endif
  (void)sink;
}

// The size the allocator handed out for a heap area starting at p, or -1 when it cannot be known here.
inline int64_t allocatedSize(const void* p) {
#ifdef BLOCKPROC_FUZZ_ASAN
  if (p != nullptr && __sanitizer_get_ownership(p))
    return static_cast<int64_t>(__sanitizer_get_allocated_size(p));
#else
  (void)p;
#endif
  return -1;
}

}  // namespace blockproc::fuzz
