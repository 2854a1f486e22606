// The noise level of a (blurred) image and the noise strength a deconvolution of it should use.
// Planes are row-major doubles on the [0, 1] scale, width values a row, channels one after
// another, as everywhere in the engine. Nothing here keeps a reference to the caller's planes.
#pragma once

#include <span>

namespace marlith {

// Standard deviation, on the [0, 1] scale, of white noise added to the image (channels planes of
// width x height). Each channel is estimated from the covariance of its 7 x 7 patches: noise
// spreads evenly over every direction of patch space while a blurred image's signal lives in a
// few, so the noise variance is the mean of the smallest eigenvalues, taken over the largest set
// whose mean equals its median (Chen, Zhu and Heng, ICCV 2015). Texture the blur leaves would
// fill those directions too, so the covariance is then taken again over the weak-texture patches
// only, those whose neighbour differences noise of the estimated level alone explains (at the
// 99.9th percentile), until the estimate settles. The channels' variances are averaged (the
// result is their root mean square), since one strength serves every channel.
// When every sample lies on the 8-bit grid (k / 255), the rounding's own variance,
// 1 / (12 x 255^2), is taken off the estimate: the result is the noise added before rounding.
// A plane with too few patches (fewer than 784 positions, e.g. under 34 x 34) falls back to the
// median absolute 2 x 2 diagonal difference; a single sample gives 0. Returns NaN when a sample
// is not finite (callers refuse such input first). A size below 1 gives 0; otherwise planes must
// hold at least width x height x channels samples. The channels are estimated on up to threads
// threads (0: one per core); the result does not depend on how many.
double EstimateNoiseLevel(std::span<const double> planes, int width, int height, int channels,
                          int threads = 0);

// The command line's noise strength (unitless: the value a user would pass to
// `marlith ... noise ...`) for a noise level as EstimateNoiseLevel returns it:
//   strength = 67.7 x level^1.369,  level held to [0.0025, 0.1]
// (0.048 at 0.5 %, 0.124 at 1 %, 0.56 at 3 %, 1.12 at 5 %), fitted by bench/noise_bench to the
// best fixed strengths on its calibration images (see BENCHMARKS.md). Non-decreasing in level; 0,
// negative levels and levels under 0.25 % give the value at 0.25 %, levels over 10 % the value at
// 10 % (outside the calibrated 0.5 to 5 % the rule is extrapolated by a factor of two at most). NaN
// gives NaN.
double NoiseStrengthForLevel(double level);

// The noise level of an image that may have been compressed (JPEG). Compression removes the
// fine-grain noise EstimateNoiseLevel looks for (it reads almost 0 on JPEGs of quality 75 to
// 95), while the coarser noise stays, and that is what a deconvolution amplifies. So the level
// is read at half the resolution as well, from 2 x 2 means (white noise there is half as strong,
// so the reading is doubled); when the full-resolution reading is under half of that, the image
// has lost its fine noise and the half-resolution reading is the level. Images under 68 x 68
// samples are read at full resolution only. Both readings' planes share up to threads threads.
double EstimateCompressedNoiseLevel(std::span<const double> planes, int width, int height,
                                    int channels, int threads = 0);

struct NoiseEstimate {
  double level;     // EstimateNoiseLevel
  double strength;  // NoiseStrengthForLevel(level)
};

// Both of the above in one call.
NoiseEstimate EstimateNoise(std::span<const double> planes, int width, int height, int channels);

}  // namespace marlith
