// The engine's first solver variant: every channel deblurred in the frequency domain with one
// solver object.
#pragma once

#include "marlith/deconv_request.h"

namespace marlith {

// Deconvolves request.channels planes of request.width x request.height with the request's
// (prepared) kernel and writes the result into request.output. The planes are solved at even
// working sizes, with smooth periodic border margins when boundaryType is non-zero, and cropped
// back centred. Returns 0; throws marlith::Error when the request cannot be solved.
int RunFrequencySolver(const DeconvRequest& request);

}  // namespace marlith
