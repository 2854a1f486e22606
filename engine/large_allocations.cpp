// The command-line executables' allocation of C++ objects, linked into them only (never into a
// library, whose host process has its own allocator): blocks of 2 MiB and more (the image's
// pixels, the file's bytes, the decoded and encoded rows) are placed on transparent huge pages,
// as the engine's planes already are. First touching fresh memory costs a page fault per 4 KiB
// page, and on the virtual machine we measure on a fault costs about 12 us: without this the
// faults of a 1-megapixel run were about a tenth of its time.
#include <cstdlib>
#include <new>

#include "plane/fftw_plan.h"

namespace {

// AllocatePlaneMemory puts blocks of this size and more on huge pages.
constexpr std::size_t kLarge = std::size_t{2} << 20;

void* Allocate(std::size_t bytes) noexcept {
  if (bytes >= kLarge) return marlith::AllocatePlaneMemory(bytes);
  return std::malloc(bytes ? bytes : 1);
}

}  // namespace

// Both allocators' blocks are released with free().
void* operator new(std::size_t bytes) {
  if (void* p = Allocate(bytes)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t bytes) { return operator new(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return Allocate(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return Allocate(bytes); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
