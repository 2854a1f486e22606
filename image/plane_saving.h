// Image type by file name and saving planes of doubles as 24-bit images.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace marlith {

// 4 for a name ending in "png", 3 for "jpg", 1 for "bmp" (case-sensitive, last three characters,
// no dot needed); 0 for anything else and for names of fewer than 4 characters.
int32_t ImageTypeFromName(const std::string& path);

// Result of a save: ok, or the reason it failed (one line naming the file).
struct SaveResult {
  bool ok = false;
  std::string error;
};

// Writes a width x height plane as a 24-bit grey image of the type named by path.
// Mode 0: sample x 255, negative left black, limited to 255, truncated. Mode 1: linear stretch
// of [min, max] to [0, 255], truncated. Other modes: a black image.
SaveResult SaveGreyPlane(std::span<const double> plane, int32_t width, int32_t height,
                         const std::string& path, int32_t mode = 0);

// Writes channels planes (red, green, blue order; planar) as a 24-bit colour image. Each sample
// x 255, negative left black, limited to 255, truncated; channels past the third are ignored.
SaveResult SaveColourPlanes(std::span<const double> planes, int32_t width, int32_t height,
                            int32_t channels, const std::string& path);

// The surface fit's debug picture: the plane saved with SaveGreyPlane (mode 0) as
// "surfaceFitOut1.png" in the working folder. Where that fails nothing else depends on the file,
// so the failure is ignored.
void WriteSurfaceFitDebugImage(std::span<const double> plane, int32_t width, int32_t height);

}  // namespace marlith
