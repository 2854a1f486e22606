#include "deblur/image_restore.h"

#include <chrono>

#include "marlith/error.hpp"
#include "marlith/kernels.hpp"

namespace marlith {

namespace {

// Shares of an image's work shown by the progress bar: the engine's run between reading and
// writing. Reading and writing a large TIFF or PNG take a few percent of a run.
constexpr double kReadShare = 0.04;
constexpr double kWriteShare = 0.04;

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Times the phases the progress callback names, each from its first report to the next
// phase's first report.
class PhaseClock {
 public:
  explicit PhaseClock(std::vector<std::pair<std::string, double>>& out) : out_(out) {}
  void Enter(std::string_view phase) {
    if (!out_.empty() && out_.back().first == phase) return;
    Leave();
    out_.emplace_back(std::string(phase), 0.0);
    start_ = Clock::now();
    open_ = true;
  }
  void Leave() {
    if (open_) out_.back().second = SecondsSince(start_);
    open_ = false;
  }

 private:
  std::vector<std::pair<std::string, double>>& out_;
  Clock::time_point start_;
  bool open_ = false;
};

// gaussian:auto: the Gaussian whose sigma the image's colour planes, in linear light, give.
KernelFile EstimateKernel(const std::string& name, const LoadedImage& image, const ToneCurve& curve,
                          RestoredImage& result) {
  const size_t samples = static_cast<size_t>(image.width) * image.height * image.colourChannels;
  std::vector<double> light(image.planes.begin(), image.planes.begin() + samples);
  for (double& v : light) v = LinearLight(curve, v);
  try {
    result.estimatedSigma =
        EstimateGaussianSigma(light, image.width, image.height, image.colourChannels);
  } catch (const Error& e) {
    throw Error(name + ": gaussian:auto: " + e.what());
  }
  Kernel k = GaussianKernel(result.estimatedSigma);
  return {std::move(k.values), k.width, k.height, {}};
}

}  // namespace

SampleDepth ResultDepth(DepthChoice choice, SampleDepth input, ImageFileType type, bool* narrowed) {
  if (narrowed) *narrowed = false;
  switch (choice) {
    case DepthChoice::k8:
      return SampleDepth::k8;
    case DepthChoice::k16:
      return SampleDepth::k16;
    case DepthChoice::kFloat:
      return SampleDepth::kFloat;
    case DepthChoice::kSame:
      break;
  }
  for (SampleDepth d : {SampleDepth::kFloat, SampleDepth::k16, SampleDepth::k8}) {
    if (d > input || !ImageFileTypeHolds(type, d)) continue;
    if (narrowed) *narrowed = d != input;
    return d;
  }
  return SampleDepth::k8;
}

RestoredImage RestoreImage(const PlannedImage& plan, const KernelFile& kernel,
                           const DeblurSettings& settings, int threads,
                           const ImageProgress& progress) {
  RestoredImage result;
  PhaseClock phases(result.phaseSeconds);
  auto report = [&](std::string_view phase, double fraction) {
    phases.Enter(phase);
    if (progress && !progress(phase, fraction)) throw Cancelled();
  };

  report("reading", 0.0);
  // Every page of a multi-page TIFF; each is restored on its own.
  LoadedStack stack = ReadImageStack(plan.input);
  LoadedImage& image = stack.pages.front();
  result.pages = static_cast<int>(stack.pages.size());
  result.axes = stack.axes;
  if (result.pages > 1) {
    if (ImageFileTypeFromPath(plan.output) != ImageFileType::kTiff)
      throw Error(plan.output + ": " + plan.input + " is a stack of " +
                  std::to_string(result.pages) +
                  " pages, written as TIFF only (name the output .tif, or -f tif)");
    image.warnings.push_back(plan.input + ": a stack of " + std::to_string(result.pages) +
                             " pages; a 2-D PSF on a stack restores each plane");
  }
  // What reading passed over, and what the output's type will leave out.
  result.warnings = std::move(image.warnings);
  for (std::string& w : OutputWarnings(plan.output, image)) result.warnings.push_back(std::move(w));
  result.width = image.width;
  result.height = image.height;
  result.colourChannels = image.colourChannels;
  result.hasAlpha = image.hasAlpha;
  result.inputDepth = image.depth;

  const ImageFileType type = ImageFileTypeFromPath(plan.output);
  bool narrowed = false;
  result.outputDepth = ResultDepth(settings.depth, image.depth, type, &narrowed);
  if (narrowed) {
    result.warnings.push_back(plan.output + ": " + ImageFileTypeName(type) + " cannot hold " +
                              SampleDepthWords(image.depth) + " samples; written with " +
                              SampleDepthWords(result.outputDepth) + " samples" +
                              (ImageFileTypeHolds(ImageFileType::kTiff, image.depth)
                                   ? " (write .tif to keep them)"
                                   : ""));
  }
  // A type that cannot hold the image at all is found now rather than after the run.
  if (type == ImageFileType::kPgm && image.colourChannels != 1) {
    throw Error(plan.output + ": PGM holds grey images only, and " + plan.input +
                " is in colour (write .ppm, .png or .tif)");
  }

  // The colour planes come first; the alpha plane after them is left as it was.
  const ImageView colour =
      ImageView::Planar(image.planes.data(), image.width, image.height, image.colourChannels);
  DeconvolveOptions options = settings.engine;
  // Integer files clip at their full scale.
  if (image.depth != SampleDepth::kFloat && !options.clipLevel) options.clipLevel = 1.0;
  // The blur happened in linear light: the samples are linearised through their curve.
  // Photon counts are linear whatever the file says, unless --colorspace says otherwise.
  const bool counts = options.noiseModel == NoiseModel::kPoisson;
  const ToneCurve curve = settings.colorspace ? ChosenToneCurve(*settings.colorspace, "--colorspace")
                          : counts ? ChosenToneCurve(Colorspace::kLinear, "photon counts:")
                                   : ImageToneCurve(image);
  ApplyToneCurve(curve, options);
  result.light = curve.description;
  if (!curve.warning.empty()) result.warnings.push_back(plan.input + ": " + curve.warning);
  options.threads = threads;
  if (settings.mask) {
    const LoadedImage& mask = *settings.mask;
    if (mask.width != image.width || mask.height != image.height ||
        mask.colourChannels > image.colourChannels) {
      throw Error(plan.input + ": the mask " + settings.maskPath + " is " +
                  std::to_string(mask.width) + " x " + std::to_string(mask.height) +
                  (mask.colourChannels == 1 ? " grey" : " colour") + ", the image " +
                  std::to_string(image.width) + " x " + std::to_string(image.height) +
                  (image.colourChannels == 1 ? " grey" : " colour") +
                  " (give a grey mask, or a colour one for a colour image, of the image's size)");
    }
    options.mask =
        ConstImageView::Planar(mask.planes.data(), mask.width, mask.height, mask.colourChannels);
  }
  KernelFile estimated;
  const KernelFile& used = settings.kernelSpec && settings.kernelSpec->automatic
                               ? (estimated = EstimateKernel(plan.input, image, curve, result))
                               : kernel;
  report("preparation", kReadShare);
  options.progress = [&](std::string_view phase, double fraction) {
    if (phase == "done") return true;
    phases.Enter(phase);
    return !progress || progress(phase, kReadShare + (1.0 - kReadShare - kWriteShare) * fraction);
  };
  // Offsets are in the file's sample units; the engine reads the planes on the [0, 1] scale.
  const double sampleUnits = image.depth == SampleDepth::k8    ? 255.0
                             : image.depth == SampleDepth::k16 ? 65535.0
                                                               : 1.0;
  if (options.offset) *options.offset /= sampleUnits;
  try {
    result.report = Deconvolve(colour, {used.values, used.width, used.height}, colour, options);
    if (options.noiseModel == NoiseModel::kPoisson) options.offset = result.report.offset;
    result.report.offset *= sampleUnits;
    // The further pages of a stack, with the first page's options (and noise strength, so that
    // the planes of one stack are restored alike).
    const auto firstProgress = options.progress;
    if (!options.noise) options.noise = result.report.noiseStrength;
    for (size_t page = 1; page < stack.pages.size(); ++page) {
      LoadedImage& p = stack.pages[page];
      const ImageView planes =
          ImageView::Planar(p.planes.data(), p.width, p.height, p.colourChannels);
      options.progress = [&, page](std::string_view phase, double fraction) {
        return firstProgress(phase, (page + fraction) / stack.pages.size());
      };
      Deconvolve(planes, {used.values, used.width, used.height}, planes, options);
    }
  } catch (const Cancelled&) {
    throw;
  } catch (const Error& e) {
    std::string message = plan.input + ": " + e.what();
    if (kernel.width > image.width || kernel.height > image.height) {
      message += " (" + settings.kernelPath + " is " + std::to_string(kernel.width) + " x " +
                 std::to_string(kernel.height) +
                 ": the image and the kernel may be swapped; the kernel is the file after -k)";
    }
    throw Error(message);
  }

  if (options.refineKernel) {
    result.kernel = result.report.kernel;
    result.kernelWidth = result.report.kernelWidth;
    result.kernelHeight = result.report.kernelHeight;
  } else {
    result.kernel = used.values;
    result.kernelWidth = used.width;
    result.kernelHeight = used.height;
  }

  report("writing", 1.0 - kWriteShare);
  WriteImageStack(plan.output, stack, result.outputDepth, settings.jpegQuality);
  phases.Leave();
  if (progress) progress("done", 1.0);
  return result;
}

}  // namespace marlith
