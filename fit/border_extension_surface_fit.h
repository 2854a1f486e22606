// A second smooth periodic border extension, laid out as extendPeriodicBorder but filling its
// seam strips and corner block with the rectangle surface fits instead of thin-plate fits.
// Nothing in the deconvolution path uses it. The seam strips go through the debug fit, whose
// filled planes reach debugWriter (WriteSurfaceFitDebugImage rewrites "surfaceFitOut1.png").
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "fit/border_extension.h"

namespace marlith {

// Same request and result layout as extendPeriodicBorder. Returns 0.
int32_t extendPeriodicBorderBySurfaceFit(
    BorderExtensionRequest& request,
    const std::function<void(std::span<const double>, int32_t, int32_t)>& debugWriter = {});

}  // namespace marlith
