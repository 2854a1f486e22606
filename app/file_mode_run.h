// The file-mode run: image files in, a deconvolved image file out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/image_container.h"
#include "image/image_planes.h"

namespace marlith {

// One file-mode job, with the user's numbers as given.
struct DeconvFileJob {
  std::string inputImageFile;
  std::string kernelFile;
  std::string outputImageFile;
  double noise = 0.0;
  double localPriorWeight = 0.0;
  int32_t boundaryType = 0;
};

// An image's samples / 255: three planes (red, green, blue) for a colour image without alpha
// (colour type 2), otherwise one plane of the red bytes.
ImagePlanes ImageToPlanes(const CxImage& image);
// A kernel image's red bytes / 255, normalised to unit sum; throws marlith::Error for a kernel
// image whose red bytes are all zero.
ImagePlanes KernelFromImage(const CxImage& image);

// Runs the job with variant 1.
int32_t RunFileModeEntry(const std::string& inputImageFile, const std::string& kernelFile,
                         const std::string& outputImageFile, int32_t boundaryType, double noise,
                         double localPriorWeight);

// Loads the blurred image and the kernel image, runs the engine with the given variant and
// saves the result by the output name's type. Returns the engine's result (0), or -1 when an
// image cannot be loaded or the engine refuses the request; the reason is printed as one line
// on standard output. A result that cannot be saved keeps the result 0 and prints a warning
// on standard error.
int32_t RunFileMode(const DeconvFileJob& job, int32_t variant);

}  // namespace marlith
