// Planes of doubles with their size: how images travel between files and the engine.
#pragma once

#include <cstdint>
#include <vector>

namespace marlith {

// channels planes of width x height doubles, row-major, one after another (planar), on the
// [0, 1] scale.
struct ImagePlanes {
  std::vector<double> planes;
  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 0;
};

}  // namespace marlith
