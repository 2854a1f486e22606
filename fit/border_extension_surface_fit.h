// A second smooth periodic border extension, laid out as extendPeriodicBorder but filling its
// seam strips and corner block with the rectangle surface fits instead of thin-plate fits.
// Nothing in the deconvolution path uses it. Every call rewrites "surfaceFitOut1.png" in the
// working folder (the debug fit's output).
#pragma once

#include <cstdint>

#include "fit/border_extension.h"

namespace marlith {

// Same request and result layout as extendPeriodicBorder. Returns 0.
int32_t extendPeriodicBorderBySurfaceFit(BorderExtensionRequest& request);

}  // namespace marlith
