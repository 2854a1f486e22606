// The command-line executables' allocation of C++ objects, linked into them only (never into a
// library, whose host process has its own allocator): blocks of 1 MiB and more (the image's
// pixels, the file's bytes, the decoded and encoded rows) are placed on transparent huge pages,
// as the engine's planes already are. First touching fresh memory costs a page fault per 4 KiB
// page, and on the virtual machine we measure on a fault costs about 12 us: without this the
// faults of a 1-megapixel run were about a tenth of its time.
#include <algorithm>
#include <cstdlib>
#include <new>

#include "plane/fftw_plan.h"

namespace {

// AllocatePlaneMemory puts blocks of a huge page and more on huge pages. Blocks from half a huge
// page are rounded up to one: a huge page's single fault costs less than the 256 faults of 1 MiB
// of small pages, and at most half of such a block is left unused (a PNG file's bytes, its
// compressed rows).
void* Allocate(std::size_t bytes) noexcept {
  using marlith::kHugePage;
  if (bytes >= kHugePage / 2) return marlith::AllocatePlaneMemory(std::max(bytes, kHugePage));
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
