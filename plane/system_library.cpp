#include "plane/system_library.h"

#include <dlfcn.h>

#include <cstdlib>
#include <string>

#include "marlith/error.hpp"

namespace marlith {
namespace {

bool Loaded(const char* soname) {
  void* handle = ::dlopen(soname, RTLD_NOW | RTLD_NOLOAD);
  if (handle) ::dlclose(handle);  // drops only the reference RTLD_NOLOAD took
  return handle != nullptr;
}

// OpenBLAS (ours, or the BLAS UMFPACK loads) starts a thread per core as it loads, and they
// spin with sched_yield for about 0.1 s before they sleep, taking the cores from the engine's
// threads. When this open brought OpenBLAS into the process, those threads are stopped with
// OpenBLAS's own function for it (the one it calls before a fork); OpenBLAS starts them again
// at the first call that wants them, so the kernel refinement keeps its threads (1 MP: 9 s
// with them, 13 to 15 s without). A BLAS someone else loaded first, whose threads may be
// working, and a user's OPENBLAS_NUM_THREADS are left alone.
void StopIdleBlasThreads(void* handle) {
  if (std::getenv("OPENBLAS_NUM_THREADS")) return;
  using Shutdown = int();
  if (auto* shutdown = reinterpret_cast<Shutdown*>(::dlsym(handle, "blas_thread_shutdown_")))
    shutdown();
}

}  // namespace

SystemLibrary::SystemLibrary(const char* soname) : soname_(soname) {
  // The names OpenBLAS goes by: its own, and the BLAS interface's (Debian's alternatives).
  const bool blasWasLoaded = Loaded("libopenblas.so.0") || Loaded("libblas.so.3");
  handle_ = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (!handle_) {
    const char* why = ::dlerror();
    throw Error(std::string("cannot load ") + soname + (why ? std::string(": ") + why : ""));
  }
  if (!blasWasLoaded) StopIdleBlasThreads(handle_);
}

void* SystemLibrary::Find(const char* name) const {
  void* symbol = ::dlsym(handle_, name);
  if (!symbol) throw Error(std::string(soname_) + " has no function " + name);
  return symbol;
}

}  // namespace marlith
