// Helpers shared by the test executables.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace marlith::test {

// Peak signal-to-noise ratio in dB of a against b on the [0, 1] scale, over the
// (width - 2 margin) x (height - 2 margin) interior of each channel.
double Psnr(std::span<const double> a, std::span<const double> b, int width, int height,
            int channels = 1, int margin = 0);

}  // namespace marlith::test
