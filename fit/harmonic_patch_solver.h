// Harmonic and Poisson fills of a rectangular patch: the 5-point finite-difference problem on a
// grid of nx x ny intervals over the unit square, solved with FFTW's real trigonometric
// transforms (sine transforms along Dirichlet directions, cosine transforms along Neumann ones).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace marlith {

// One patch: the solution plane (width x height, row-major) and the values on its four sides.
// code letters, in order: first column side, last column side, first row side, last row side;
// 'D' gives the side's values, 'N' a zero normal derivative (the side's array is then unused).
struct HarmonicPatch {
  int32_t width = 0;                            // points per row
  int32_t height = 0;                           // points per column
  std::vector<double> solution;                 // width x height, filled by the solve
  std::vector<double> firstRow, lastRow;        // width values each
  std::vector<double> firstColumn, lastColumn;  // height values each
  std::string code = "DDDD";                    // "DDDD", "NNDD" or "DDNN"
};

// Laplace: fills patch.solution with the discrete harmonic function that takes the Dirichlet
// sides' values. Both sizes odd: the points are the grid's (nx = width - 1, ny = height - 1);
// otherwise the grid has the sizes rounded down to even as intervals, and the sides and the
// solution are resampled linearly between the patch and the grid. Returns 0.
int32_t solveHarmonicPatch(HarmonicPatch& patch);

// Poisson: as solveHarmonicPatch with the 5-point Laplacian equal to rhs (width x height, in
// grid units: what the 3 x 3 Laplacian filter gives). Returns 0.
int32_t solvePoissonPatch(HarmonicPatch& patch, std::span<const double> rhs);

// The solve on the grid itself: u is (nx + 1) x (ny + 1), row-major, with its Dirichlet side
// values already in place; rhs (same size, grid units) may be empty for Laplace. Solves
// nx^2 dxx u + ny^2 dyy u = nx ny rhs at every point not on a Dirichlet side, a Neumann side
// reflecting its inner neighbour (u(-1) = u(1)). Exposed for tests.
void solveGridPoisson(std::vector<double>& u, int nx, int ny, const std::string& code,
                      std::span<const double> rhs);

// n values resampled linearly to m (>= 2) values, the end points kept.
std::vector<double> resampleLinear(std::span<const double> values, int m);

}  // namespace marlith
