/* marlith: non-blind image deconvolution, C entry point.
 * Usable from C, C++ and foreign-function layers (ctypes, cffi, JNA, ...). */
#ifndef MARLITH_MARLITH_H
#define MARLITH_MARLITH_H

#include <stdint.h>

/* What the shared library exports. */
#ifndef MARLITH_API
#if defined(__GNUC__)
#define MARLITH_API __attribute__((visibility("default")))
#else
#define MARLITH_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Restores width x height planes (channels of them, planar, values on the [0, 1] scale) blurred
 * by the kernel (kernelHeight x kernelWidth, row-major, used as given: not normalised here).
 * noise and localPriorWeight are the command line's unscaled values (typical: 1 and 1);
 * boundaryType 0 treats the image as periodic, any other value gives it smooth periodic border
 * margins first. The caller owns all three arrays; outputData receives the result.
 * Returns 0 on success and -1 when a request is refused; the reason is printed as one line on
 * standard output. */
MARLITH_API int32_t marlithDeconvolve(const double* inputData, double* outputData, int32_t width,
                                      int32_t height, int32_t channels, const double* kernelData,
                                      int32_t kernelWidth, int32_t kernelHeight, double noise,
                                      double localPriorWeight, int32_t boundaryType);

#ifdef __cplusplus
}
#endif

#endif /* MARLITH_MARLITH_H */
