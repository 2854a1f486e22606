// One image of a marlith-deblur run: read, restored through the options API, written.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "deblur/deblur_options.h"
#include "deblur/output_plan.h"
#include "image/image_io.h"
#include "image/kernel_file.h"
#include "image/tone_curve.h"
#include "marlith/deconvolve.hpp"

namespace marlith {

// Receives the image's phase ("reading", the engine's phases, "writing") and the fraction of
// the image's work done, in [0, 1]. Returning false stops the image: RestoreImage then throws
// Cancelled and writes nothing.
using ImageProgress = std::function<bool(std::string_view phase, double fraction)>;

// What restoring one image found, for --verbose.
struct RestoredImage {
  int width = 0, height = 0, colourChannels = 0;
  bool hasAlpha = false;
  SampleDepth inputDepth = SampleDepth::k8, outputDepth = SampleDepth::k8;
  DeconvolveReport report;
  std::string light;  // the tone curve the image was restored through (ToneCurve::description)
  std::vector<std::pair<std::string, double>> phaseSeconds;  // in the order they ran
  std::vector<std::string> warnings;
  double estimatedSigma = 0.0;  // gaussian:auto: the sigma estimated from the image
  // The kernel the run used: the one given, generated for the image, or refined.
  std::vector<double> kernel;
  int kernelWidth = 0, kernelHeight = 0;
  int pages = 1;   // a multi-page TIFF's pages, each restored on its own
  StackAxes axes;  // their axes and voxel size
};

// The depth a result is written with: the one chosen, or for DepthChoice::kSame the input's,
// narrowed to the deepest the output's type holds (*narrowed then says so when given).
SampleDepth ResultDepth(DepthChoice choice, SampleDepth input, ImageFileType type,
                        bool* narrowed = nullptr);

// Reads image.input, restores its colour channels with kernel under settings.engine (with
// threads for settings.engine.threads), copies its alpha channel unchanged and writes the
// result to image.output at ResultDepth (with "gaussian:auto" in settings.kernelSpec, kernel is
// not used: a Gaussian is estimated from the image's light), keeping the ICC profile and EXIF; the
// file is written whole or not at all. Throws marlith::Error with one line naming the file at fault
// (a kernel larger than the image also says the two may have been swapped), Cancelled when progress
// says to stop, std::bad_alloc when memory runs out.
RestoredImage RestoreImage(const PlannedImage& image, const KernelFile& kernel,
                           const DeblurSettings& settings, int threads,
                           const ImageProgress& progress);

}  // namespace marlith
