// The microscope PSF specs' reader, for ParseKernelSpec.
#pragma once

#include <string_view>

#include "marlith/kernels.hpp"

namespace marlith {

// Reads the comma-separated KEY=VALUE pairs after "widefield:" or "confocal:" (see KernelSpec)
// into optics and checks them as WidefieldPsf and ConfocalPsf do. Throws Error with one line
// naming spec and the key at fault (unknown, missing, malformed, out of range).
MicroscopeOptics ParseMicroscopeOptics(std::string_view pairs, std::string_view spec,
                                       bool confocal);

}  // namespace marlith
