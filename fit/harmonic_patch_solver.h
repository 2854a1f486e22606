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

// The discrete problem, on a grid of nx x ny intervals over the unit square (hx = 1/nx,
// hy = 1/ny, which may differ): at every grid point not on a Dirichlet side,
//   (u[i-1,j] - 2u[i,j] + u[i+1,j]) / hx^2 + (u[i,j-1] - 2u[i,j] + u[i,j+1]) / hy^2 = f[i,j],
// with f = 0 for Laplace. Dirichlet side points hold the side's values (the row sides' values at
// the corners). Points on a Neumann side are unknowns too; their missing outer neighbour is the
// mirror of the inner one (u[-1,j] = u[1,j], u[nx+1,j] = u[nx-1,j]), the second-order central
// difference of a zero normal derivative. A Neumann axis of a single point (nx = 0) has no
// difference term at all.

// Laplace: fills patch.solution (width x height) with the discrete harmonic function that takes
// the Dirichlet sides' values; a Neumann side's array is not read. Both sizes odd: the points
// are the grid's (nx = width - 1, ny = height - 1); otherwise nx and ny are the sizes rounded
// down to even, and the sides and the solution are resampled linearly between the patch and
// the grid. Requires a code of "DDDD", "NNDD" or "DDNN" and side arrays of the patch's sizes.
// Returns 0.
int32_t solveHarmonicPatch(HarmonicPatch& patch);

// Poisson: as solveHarmonicPatch with f = nx ny rhs, rhs (width x height) in sample units, as
// the 3 x 3 Laplacian filter of the data gives it. The factor nx ny = 1/(hx hy) makes a square
// grid reproduce data whose Laplacian is passed (resampled like the sides for even sizes).
// Returns 0.
int32_t solvePoissonPatch(HarmonicPatch& patch, std::span<const double> rhs);

// The solve on the grid itself: u is (nx + 1) x (ny + 1), row-major, with its Dirichlet side
// values already in place; rhs (same size, sample units, scaled by nx ny as above) may be empty
// for Laplace. Overwrites every unknown of u. Exposed for tests.
void solveGridPoisson(std::vector<double>& u, int nx, int ny, const std::string& code,
                      std::span<const double> rhs);

// n (>= 1) values resampled linearly to m (>= 1) values spread over the same span, the end
// points kept; a single value is repeated.
std::vector<double> resampleLinear(std::span<const double> values, int m);

}  // namespace marlith
