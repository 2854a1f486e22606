/* marlith: non-blind image deconvolution, C entry point.
 * Usable from C, C++ and foreign-function layers (ctypes, cffi, JNA, ...). */
#ifndef MARLITH_MARLITH_H
#define MARLITH_MARLITH_H

#include <stdint.h>

#include "marlith/export.h"

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

/* ---- The options entry ----------------------------------------------------------------
 * Everything below leaves standard output and standard error alone: a call that fails returns
 * a negative code, and marlithLastError() gives its one-line reason. Every function may be
 * called from several threads at once. */

/* Result codes. */
#define MARLITH_OK 0
#define MARLITH_ERROR (-1)     /* refused input or a failure; see marlithLastError() */
#define MARLITH_CANCELLED (-2) /* the progress callback asked to stop */

/* Sample types: integers are scaled by their full range to [0, 1]; floats are taken as they
 * are, on that scale. */
#define MARLITH_UINT8 0
#define MARLITH_UINT16 1
#define MARLITH_FLOAT32 2
#define MARLITH_FLOAT64 3

/* A borrowed view of width x height x channels samples: sample (x, y, c) is at element
 * x * columnStride + y * rowStride + c * channelStride from data (strides count samples and may
 * be negative). Planar: 1, width, width * height. Interleaved: channels, channels * width, 1. */
typedef struct MarlithImage {
  void* data;
  int32_t sampleType; /* MARLITH_UINT8 ... MARLITH_FLOAT64 */
  int32_t width;
  int32_t height;
  int32_t channels;
  int64_t columnStride;
  int64_t rowStride;
  int64_t channelStride;
} MarlithImage;

#define MARLITH_BOUNDARY_PERIODIC 0
#define MARLITH_BOUNDARY_SMOOTH 1
#define MARLITH_MARGINS_EXACT 0
#define MARLITH_MARGINS_FAST 1
#define MARLITH_ORIGIN_CENTER 0
#define MARLITH_ORIGIN_SUPPORT 1
#define MARLITH_COLORSPACE_LINEAR 0 /* the samples are proportional to light, or are data */
#define MARLITH_COLORSPACE_SRGB 1   /* linearised with the sRGB curve, restored, encoded back */
#define MARLITH_NOISE_GAUSSIAN 0    /* white noise */
#define MARLITH_NOISE_POISSON 1     /* photon counts over a camera offset, results non-negative */

/* Receives the phase running and the fraction of the run done (0 to 1), at most about 100
 * times a second; a non-zero return cancels the run (MARLITH_CANCELLED). */
typedef int32_t (*MarlithProgress)(const char* phase, double fraction, void* user);

/* Options. Fill with marlithDefaultOptions() and change what you need. size is the struct's
 * own size, so that it can grow: a caller built against an older, shorter struct gets the
 * defaults for the fields it does not know. */
typedef struct MarlithOptions {
  uint32_t size;
  int32_t noiseAutomatic; /* non-zero (default): the noise strength is estimated from the image */
  double noise;           /* the noise strength when noiseAutomatic is 0 (command line's number) */
  int32_t boundary;       /* default MARLITH_BOUNDARY_SMOOTH */
  int32_t margins;        /* default MARLITH_MARGINS_FAST */
  int32_t kernelOrigin;   /* default MARLITH_ORIGIN_CENTER */
  int32_t refineKernel;   /* non-zero: re-estimate the kernel and deconvolve with it */
  int32_t threads;        /* 0 (default): every core */
  MarlithProgress progress; /* may be NULL (default) */
  void* progressUser;       /* handed to progress */
  int32_t colorspace;       /* how the samples encode light; default MARLITH_COLORSPACE_LINEAR */
  int32_t noiseModel;       /* default MARLITH_NOISE_GAUSSIAN; MARLITH_NOISE_POISSON needs fast
                               margins, no kernel refinement and linear samples */
  int32_t offsetAutomatic;  /* non-zero (default): the camera offset is estimated (Poisson) */
  double offset;            /* the camera offset in sample units when offsetAutomatic is 0 */
} MarlithOptions;

/* What a run used. size as in MarlithOptions. When kernel is not NULL and kernelCapacity is at
 * least kernelWidth x kernelHeight, the kernel the solver used (normalised, trimmed or centred,
 * zero-bordered; refined with refineKernel) is copied there, row-major. */
typedef struct MarlithReport {
  uint32_t size;
  double noiseLevel;    /* estimated noise level; NaN when the strength was given */
  double noiseStrength; /* the noise strength used */
  int32_t kernelWidth;
  int32_t kernelHeight;
  double* kernel;         /* set by the caller, or NULL */
  int64_t kernelCapacity; /* values kernel can hold */
  double offset;          /* MARLITH_NOISE_POISSON: the camera offset used, in sample units */
} MarlithReport;

/* Fills options with the defaults (size included). */
MARLITH_API void marlithDefaultOptions(MarlithOptions* options);

/* Deconvolves input with the kernel (kernelHeight x kernelWidth doubles, row-major, any scale:
 * normalised here; finite, non-negative, positive sum) into output, which has input's width,
 * height and channels and may be the same memory. options NULL means the defaults; report may
 * be NULL. Returns MARLITH_OK, MARLITH_ERROR or MARLITH_CANCELLED. */
MARLITH_API int32_t marlithDeconvolveImage(const MarlithImage* input, const MarlithImage* output,
                                           const double* kernel, int32_t kernelWidth,
                                           int32_t kernelHeight, const MarlithOptions* options,
                                           MarlithReport* report);

/* The noise level of a blurred image (standard deviation on the [0, 1] scale) and the noise
 * strength a run with automatic noise chooses for it; either pointer may be NULL. Returns
 * MARLITH_OK or MARLITH_ERROR. */
MARLITH_API int32_t marlithEstimateNoise(const MarlithImage* image, double* level,
                                         double* strength);

/* The reason the calling thread's last failed call gave, or "" when none failed yet. Valid
 * until that thread's next call. */
MARLITH_API const char* marlithLastError(void);

/* The library's version, "major.minor.patch". */
MARLITH_API const char* marlithVersion(void);

#ifdef __cplusplus
}
#endif

#endif /* MARLITH_MARLITH_H */
