// A deliberately plain version of the half-quadratic solve, for checking the fast one: full
// complex spectra from complex-to-complex transforms, one pass per step, nothing fused.
#pragma once

#include <vector>

namespace marlith::test {

struct ReferenceSettings {
  double noise = 0.0005;
  double localPriorWeight = 0.0;
  std::vector<double> mask;  // empty: all zero
};

// Restores a W x H observed plane blurred by a kw x kh kernel (centred at its tap (kw/2, kh/2)).
std::vector<double> ReferenceSolve(const std::vector<double>& observed, int W, int H,
                                   const std::vector<double>& kernel, int kw, int kh,
                                   const ReferenceSettings& settings);

}  // namespace marlith::test
