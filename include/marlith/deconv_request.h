/* The request record: one deconvolution job as it travels from an entry point to the engine.
 * Plain C layout so that the C entry point and foreign-function layers can share it. */
#ifndef MARLITH_DECONV_REQUEST_H
#define MARLITH_DECONV_REQUEST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* All three buffers belong to the caller; the record owns nothing.
 * input:  channels planes of height x width doubles, planar (channel, row, column), in [0, 1].
 * output: same shape as input, written by the engine.
 * kernel: kernelHeight x kernelWidth doubles, row-major. */
typedef struct DeconvRequest {
  const double* input;
  double* output;
  const double* kernel;
  int32_t width;
  int32_t height;
  int32_t channels; /* 1 (grey) or 3 (red, green, blue planes in that order) */
  int32_t kernelWidth;
  int32_t kernelHeight;
  double noise;            /* already scaled: user value / 2000 */
  double localPriorWeight; /* already scaled: user value x 20 */
  int32_t boundaryType;    /* 0: periodic; any other value: smooth periodic border margins */
} DeconvRequest;

#ifdef __cplusplus
}
#endif

#endif /* MARLITH_DECONV_REQUEST_H */
