// Restarted GMRES, preconditioned on the right, over a linear operator given as a callable:
// solves A x = b for A and a preconditioner M ~ A that the caller applies to vectors of n
// doubles. Dot products are summed in fixed blocks in block order, so the iterates do not
// depend on the number of threads.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

#include "plane/fftw_plan.h"

namespace marlith {

// y = Op x for vectors of the solve's length; x and y never overlap.
using LinearOperator = std::function<void(const double* x, double* y)>;

struct GmresSettings {
  int restart = 12;          // Krylov dimension of one cycle
  int maxIterations = 240;   // over all cycles
  double tolerance = 1e-16;  // |b - A x| <= tolerance |b| ends the iteration at once
  // A cycle that leaves the residual above stagnation x the previous cycle's ends the
  // iteration, as does the iteration limit; the solution is then accepted when its residual is
  // at most acceptable |b|.
  double stagnation = 0.3;
  double acceptable = 1e-12;
  int threads = 0;  // threads for the vector operations; 0: every core
};

struct GmresResult {
  bool converged = false;  // x holds an accepted solution; otherwise x is undefined
  int iterations = 0;      // Arnoldi steps taken over all cycles
};

// The iteration's vectors (the Krylov basis of restart + 1 vectors and two more, in memory that
// takes few page faults), kept between solves of one size so that they are allocated and first
// touched once.
struct GmresWorkspace {
  FftwBuffer<double> vectors;
  size_t capacity = 0;  // values vectors holds
  std::vector<double> partial;
};

// Solves A x = rhs into x (rhs.size() values), starting from x = M^-1 rhs. A zero right-hand
// side gives x = 0 at once.
GmresResult solveGmres(std::span<const double> rhs, std::span<double> x,
                       const LinearOperator& apply, const LinearOperator& precondition,
                       const GmresSettings& settings, GmresWorkspace& workspace);

}  // namespace marlith
