// OpenBLAS (loaded for UMFPACK and the kernel refinement) starts a thread per core when it
// loads, and they spin with sched_yield for about 0.1 s before they sleep, taking cores from
// the engine's own threads just when the first channel is solved: about 4 % of a 1-megapixel
// run (measured with OPENBLAS_NUM_THREADS=1 set by hand). Linked into the command-line
// executables only, this stops those threads before main; OpenBLAS starts them again at the
// first BLAS call that wants them. A user who has told OpenBLAS how many threads to use is left
// alone. The function is OpenBLAS's own, the one it stops its threads with before a fork; it is
// looked up weakly, so that under another BLAS nothing happens. (Setting the variable from the
// process cannot work: OpenBLAS reads it while it loads, and a pre-initialiser's setenv is
// undone by the C library's start-up.)
#include <cstdlib>

extern "C" int blas_thread_shutdown_(void) __attribute__((weak));

namespace {

[[gnu::constructor]] void StopIdleBlasThreads() {
  if (blas_thread_shutdown_ && !std::getenv("OPENBLAS_NUM_THREADS")) blas_thread_shutdown_();
}

}  // namespace
