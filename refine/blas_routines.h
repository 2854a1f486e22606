// The CBLAS routines the kernel refinement calls, from OpenBLAS opened on first use.
#pragma once

#include <cblas.h>

namespace marlith {

struct BlasRoutines {
  decltype(&cblas_dgemv) dgemv;
  decltype(&cblas_dgemm) dgemm;
  decltype(&cblas_dsyrk) dsyrk;
};

// Opens OpenBLAS on the first call; throws marlith::Error when it cannot.
const BlasRoutines& Blas();

}  // namespace marlith
