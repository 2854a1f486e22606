/* Compiled as C: the public entry header must be usable from plain C. */
#include "marlith/marlith.h"

int32_t CallMarlithFromC(const double* in, double* out, int32_t w, int32_t h, const double* k,
                         int32_t kw, int32_t kh) {
  return marlithDeconvolve(in, out, w, h, 1, k, kw, kh, 1.0, 1.0, 0);
}
