// The engine's first solver variant: every channel deblurred in the frequency domain with one
// solver object.
#pragma once

#include <vector>

#include "marlith/deconv_request.h"

namespace marlith {

// The planes a solve works on: every channel at the working size.
struct WorkingPlanes {
  std::vector<double> planes;  // channels x height x width
  int width = 0;
  int height = 0;
};

// The request's planes extended to even sizes (last column and row repeated) and, for a
// non-zero boundaryType, given smooth periodic margins of three kernel sizes on every side.
// Throws marlith::Error when the kernel is larger than the image.
WorkingPlanes PrepareWorkingPlanes(const DeconvRequest& request);

// Deconvolves request.channels planes of request.width x request.height with the request's
// (prepared) kernel and writes the result into request.output. The planes are solved at even
// working sizes, with smooth periodic border margins when boundaryType is non-zero, and cropped
// back centred. Returns 0; throws marlith::Error when the request cannot be solved.
int RunFrequencySolver(const DeconvRequest& request);

}  // namespace marlith
