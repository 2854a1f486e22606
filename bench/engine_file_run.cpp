#include "bench/engine_file_run.h"

#include <chrono>
#include <cstring>
#include <span>
#include <vector>

#include "app/file_mode_run.h"
#include "engine/engine_driver.h"
#include "image/image_container.h"
#include "image/plane_saving.h"
#include "marlith/error.hpp"

namespace marlith::bench {
namespace {

void Load(CxImage& image, const std::string& path) {
  if (!image.Load(path, ImageTypeFromName(path))) throw Error(image.GetLastError());
}

}  // namespace

void WorkingSize(int width, int height, int kw, int kh, int boundaryType, MarginSize margins,
                 int& workWidth, int& workHeight) {
  // As PrepareWorkingPlanes: even sides, then three prepared-kernel sizes a side (or more).
  auto side = [&](int n, int k) {
    n += n & 1;
    if (boundaryType == 0) return n;
    const int exact = n + 6 * k;
    return margins == MarginSize::kExact ? exact : NextFastSize(exact);
  };
  workWidth = side(width, kw);
  workHeight = side(height, kh);
}

EngineFileRun RunEngineOnFiles(const std::string& blurred, const std::string& kernelFile,
                               const std::string& out, int boundaryType, double noise,
                               double weight, MarginSize margins) {
  const auto start = std::chrono::steady_clock::now();
  CxImage blurredImage, kernelImage;
  Load(blurredImage, blurred);
  Load(kernelImage, kernelFile);
  const ImagePlanes image = ImageToPlanes(blurredImage);
  const ImagePlanes kernelPlanes = KernelFromImage(kernelImage);
  const PreparedKernel kernel =
      PrepareKernel(kernelPlanes.planes, kernelPlanes.width, kernelPlanes.height);
  std::vector<double> output(image.planes.size(), 0.0);
  DeconvRequest request{};
  request.input = image.planes.data();
  request.output = output.data();
  request.kernel = kernel.values.data();
  request.width = image.width;
  request.height = image.height;
  request.channels = image.channels;
  request.kernelWidth = kernel.width;
  request.kernelHeight = kernel.height;
  request.noise = noise / 2000.0;
  request.localPriorWeight = weight * 20.0;
  request.boundaryType = boundaryType;
  EngineFileRun run;
  SolverRunOptions options;
  options.margins = margins;
  // The solve reports after every inner round.
  std::chrono::steady_clock::time_point marginsStart;
  options.progress = [&](const char* phase, double fraction) {
    if (std::strcmp(phase, "deconvolution") == 0) ++run.innerRounds;
    if (std::strcmp(phase, "margins") != 0) return;
    if (fraction == 0.0) {
      marginsStart = std::chrono::steady_clock::now();
    } else {
      run.marginSeconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - marginsStart).count();
    }
  };
  RunFrequencySolver(request, options);
  WorkingSize(image.width, image.height, kernel.width, kernel.height, boundaryType, margins,
              run.workWidth, run.workHeight);
  const SaveResult saved =
      image.channels == 3 ? SaveColourPlanes(output, image.width, image.height, image.channels, out)
                          : SaveGreyPlane(output, image.width, image.height, out, 0);
  if (!saved.ok) throw Error(saved.error);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return run;
}

}  // namespace marlith::bench
