// Dense linear systems: Gauss-Jordan elimination with full pivoting.
#pragma once

#include <utility>
#include <vector>

#include "wmlMath/WmlGMatrix.h"

namespace Wml {

template <class Real>
class LinearSystem {
 public:
  // Solves A X = B for square A (n x n), afB and afX holding n values each (they may be the
  // same array). Returns false when A is singular (the largest remaining pivot is 0 or not a
  // number); X then holds what the elimination had made of it up to that step.
  static bool Solve(const GMatrix<Real>& rkA, const Real* afB, Real* afX);

  // The pivot of each elimination step as (row, column), for inspection: the search runs over
  // unpivoted rows and columns in row-major order and only a strictly larger magnitude
  // replaces the current choice, so the first maximum wins.
  using PivotTrace = std::vector<std::pair<int, int>>;
  static bool Solve(const GMatrix<Real>& rkA, const Real* afB, Real* afX, PivotTrace* pkTrace);
};

using LinearSystemd = LinearSystem<double>;

}  // namespace Wml
