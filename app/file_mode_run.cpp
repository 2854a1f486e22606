#include "app/file_mode_run.h"

#include <cstdio>
#include <exception>
#include <new>
#include <vector>

#include "engine/engine_driver.h"
#include "image/image_container.h"
#include "image/plane_saving.h"
#include "image/png_codec.h"
#include "marlith/deconv_request.h"
#include "marlith/error.hpp"

namespace marlith {
namespace {

// Loads path by the type its name gives (falling back to detection); prints the loader's
// message and returns false when it cannot.
bool LoadImage(CxImage& image, const std::string& path) {
  if (image.Load(path, ImageTypeFromName(path))) return true;
  std::printf("Cannot load image %s\n", path.c_str());
  std::fflush(stdout);
  std::fprintf(stderr, "marlith: %s\n", image.GetLastError().c_str());
  return false;
}

int32_t RunLoaded(const DeconvFileJob& job, int32_t variant, CxImage& input,
                  const CxImage& kernelImage, SolverSetupAhead* setupAhead) {
  ImagePlanes image = ImageToPlanes(input);
  // Its memory, released now, serves the result's image: fresh memory costs about half a
  // millisecond a megabyte in a short run.
  input.Destroy();
  const ImagePlanes kernel = KernelFromImage(kernelImage);
  const int32_t width = image.width, height = image.height, channels = image.channels;
  // The engine reads every input plane before it writes the output, so the result replaces
  // the image's planes rather than taking as much fresh memory again.
  std::vector<double>& outputPlanes = image.planes;

  const DeconvRequest request = MakeScaledRequest(
      image.planes.data(), outputPlanes.data(), width, height, channels, kernel.planes.data(),
      kernel.width, kernel.height, job.noise, job.localPriorWeight, job.boundaryType);
  const int32_t result = RunDeconvEngine(request, variant, nullptr, setupAhead);

  const SaveResult saved =
      channels == 3 ? SaveColourPlanes(outputPlanes, width, height, channels, job.outputImageFile)
                    : SaveGreyPlane(outputPlanes, width, height, job.outputImageFile, 0);
  if (!saved.ok) std::fprintf(stderr, "Warning: %s\n", saved.error.c_str());
  return result;
}

// Images up to this many pixels have their solver set up while they are decoded. A header that
// promises more than the file holds costs the set-up of that size before the decoder refuses the
// file: bounded so, that is at most about a second and the memory a good image of the size needs.
constexpr int64_t kMaxPixelsSetUpAhead = int64_t{1} << 24;

// Decoding a PNG image takes about as long as setting up the solver, and is done on one core:
// when the image's size can be read from its PNG header and the kernel image loads, the solver is
// set up on another thread while the image is decoded (about 10 ms of a 1-megapixel run). Any
// failure here is left to the usual order of loading and running, which reports it; only the
// kernel image, once loaded (kernelLoaded), is not loaded again.
std::unique_ptr<SolverSetupAhead> SetUpWhileReading(const DeconvFileJob& job, CxImage& kernelImage,
                                                    bool& kernelLoaded) {
  int32_t width = 0, height = 0;
  if (!ReadPngSize(job.inputImageFile, width, height) ||
      static_cast<int64_t>(width) * height > kMaxPixelsSetUpAhead)
    return nullptr;
  kernelLoaded = kernelImage.Load(job.kernelFile, ImageTypeFromName(job.kernelFile));
  if (!kernelLoaded) return nullptr;
  try {
    const ImagePlanes kernel = KernelFromImage(kernelImage);
    return StartSolverSetupAhead(
        MakeScaledRequest(nullptr, nullptr, width, height, 1, kernel.planes.data(), kernel.width,
                          kernel.height, job.noise, job.localPriorWeight, job.boundaryType));
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace

ImagePlanes ImageToPlanes(const CxImage& image) {
  ImagePlanes out;
  out.width = image.GetWidth();
  out.height = image.GetHeight();
  // Only a colour image without alpha is solved per channel; palette, grey and images with an
  // alpha layer are solved as one plane read from the red bytes.
  out.channels = image.GetColorType() == 2 ? 3 : 1;
  const size_t planeSize = static_cast<size_t>(out.width) * out.height;
  out.planes = NewImagePlanes(planeSize * out.channels);
  const std::span<const PixelColor> pixels = image.Pixels();
  double* red = out.planes.data();
  for (size_t i = 0; i < planeSize; ++i) red[i] = pixels[i].red / 255.0;
  if (out.channels == 3) {
    double* green = red + planeSize;
    double* blue = green + planeSize;
    for (size_t i = 0; i < planeSize; ++i) {
      green[i] = pixels[i].green / 255.0;
      blue[i] = pixels[i].blue / 255.0;
    }
  }
  return out;
}

ImagePlanes KernelFromImage(const CxImage& image) {
  ImagePlanes kernel;
  kernel.width = image.GetWidth();
  kernel.height = image.GetHeight();
  kernel.channels = 1;
  kernel.planes.resize(static_cast<size_t>(kernel.width) * kernel.height);
  double sum = 0.0;
  const std::span<const PixelColor> pixels = image.Pixels();
  for (size_t i = 0; i < kernel.planes.size(); ++i) {
    const double v = pixels[i].red / 255.0;
    kernel.planes[i] = v;
    sum += v;
  }
  // An all-black kernel would give 0 / 0 here: refused by name instead.
  if (!(sum > 0.0)) throw Error("the kernel image is black (its red levels sum to 0)");
  for (double& v : kernel.planes) v /= sum;
  return kernel;
}

int32_t RunFileModeEntry(const std::string& inputImageFile, const std::string& kernelFile,
                         const std::string& outputImageFile, int32_t boundaryType, double noise,
                         double localPriorWeight) {
  DeconvFileJob job;
  job.inputImageFile = inputImageFile;
  job.kernelFile = kernelFile;
  job.outputImageFile = outputImageFile;
  job.noise = noise;
  job.localPriorWeight = localPriorWeight;
  job.boundaryType = boundaryType;
  return RunFileMode(job, 1);
}

int32_t RunFileMode(const DeconvFileJob& job, int32_t variant) {
  try {
    CxImage input;
    CxImage kernelImage;
    bool kernelLoaded = false;
    const std::unique_ptr<SolverSetupAhead> setupAhead =
        variant == kFrequencySolverVariant ? SetUpWhileReading(job, kernelImage, kernelLoaded)
                                           : nullptr;
    if (!LoadImage(input, job.inputImageFile)) return -1;
    if (!kernelLoaded && !LoadImage(kernelImage, job.kernelFile)) return -1;
    return RunLoaded(job, variant, input, kernelImage, setupAhead.get());
  } catch (const std::bad_alloc&) {
    std::printf("Cannot deblur %s with kernel %s: not enough memory\n", job.inputImageFile.c_str(),
                job.kernelFile.c_str());
  } catch (const std::exception& e) {
    // marlith::Error and anything a library let through: one line, never a crash.
    std::printf("Cannot deblur %s with kernel %s: %s\n", job.inputImageFile.c_str(),
                job.kernelFile.c_str(), e.what());
  }
  return -1;
}

}  // namespace marlith
