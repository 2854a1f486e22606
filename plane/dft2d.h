// One-shot two-dimensional transforms: each call plans, executes and destroys its plan. For
// occasional transforms; the solver keeps its plans in SpectralTransform instead.
#pragma once

#include <complex>
#include <cstdint>

namespace marlith {

// Forward DFT of a real width x height plane (height rows of width) into its half spectrum:
// height rows of width / 2 + 1 complex values, no scaling. Returns 0, or -1 when FFTW cannot
// plan the transform; then "ERROR: bad status: -1" is printed and the destination is left as
// it was.
int32_t Dft2d(const double* source, int32_t width, int32_t height,
              std::complex<double>* destination);

// As Dft2d, but destination may be the same block as source (which must then hold the half
// spectrum's (width / 2 + 1) x 2 x height doubles): the transform goes to a scratch block that
// is copied over the destination afterwards.
int32_t Dft2dInPlaceSafe(double* source, int32_t width, int32_t height, double* destination);

// Dft2d in single precision.
int32_t Dft2dSingle(const float* source, int32_t width, int32_t height,
                    std::complex<float>* destination);

}  // namespace marlith
