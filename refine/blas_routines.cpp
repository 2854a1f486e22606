#include "refine/blas_routines.h"

#include "plane/system_library.h"

namespace marlith {

const BlasRoutines& Blas() {
  static const BlasRoutines routines = [] {
    static const SystemLibrary library(MARLITH_OPENBLAS_SONAME);
    return BlasRoutines{library.Get<decltype(cblas_dgemv)>("cblas_dgemv"),
                        library.Get<decltype(cblas_dgemm)>("cblas_dgemm"),
                        library.Get<decltype(cblas_dsyrk)>("cblas_dsyrk")};
  }();
  return routines;
}

}  // namespace marlith
