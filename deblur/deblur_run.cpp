#include "deblur/deblur_run.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <new>
#include <system_error>
#include <thread>

#include "deblur/image_restore.h"
#include "deblur/output_plan.h"
#include "deblur/progress_display.h"
#include "image/image_io.h"
#include "image/kernel_file.h"
#include "marlith/error.hpp"
#include "marlith/kernels.hpp"

namespace marlith {

namespace {

constexpr const char* kProgram = "marlith-deblur: ";

ProgressDisplay::Mode DisplayMode(const DeblurSettings& s) {
  if (s.verbosity == Verbosity::kQuiet) return ProgressDisplay::Mode::kOff;
  const bool terminal = isatty(STDERR_FILENO) == 1;
  if (terminal) return ProgressDisplay::Mode::kTerminal;
  return s.forceProgress ? ProgressDisplay::Mode::kLines : ProgressDisplay::Mode::kOff;
}

// When the kernel cannot be used and is an image larger than the first image, the two were
// likely given the wrong way round: a sentence saying so, else "".
std::string SwapHint(const DeblurSettings& s) {
  if (s.kernelSpec) return "";
  try {
    if (ImageFileTypeFromPath(s.kernelPath) == ImageFileType::kUnknown) return "";
    const LoadedImage kernel = ReadImageFile(s.kernelPath);
    const LoadedImage image = ReadImageFile(s.inputs.front());
    if (kernel.width <= image.width && kernel.height <= image.height) return "";
    return " (the kernel " + s.kernelPath + ", " + std::to_string(kernel.width) + " x " +
           std::to_string(kernel.height) + ", is larger than the image " + s.inputs.front() + ", " +
           std::to_string(image.width) + " x " + std::to_string(image.height) +
           ": the image and the kernel may be swapped; the kernel is the file after -k)";
  } catch (const std::exception&) {
    return "";
  }
}

std::vector<double> NormalisedValues(std::vector<double> values) {
  double sum = 0.0;
  for (double v : values) sum += v;
  for (double& v : values) v /= sum;
  return values;
}

std::string Seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", s);
  return text;
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4g", v);
  return text;
}

// The --verbose lines about one restored image.
std::vector<std::string> Describe(const PlannedImage& plan, const RestoredImage& r,
                                  const DeblurSettings& s) {
  const std::string name = plan.input + ": ";
  std::vector<std::string> lines;
  lines.push_back(name + std::to_string(r.width) + " x " + std::to_string(r.height) + ", " +
                  (r.colourChannels == 1 ? "grey" : "colour") + (r.hasAlpha ? " and alpha" : "") +
                  ", " + SampleDepthWords(r.inputDepth) + " samples");
  if (r.pages > 1) {
    const StackAxes& a = r.axes;
    lines.push_back(name + a.kind + " stack of " + std::to_string(r.pages) + " pages: " +
                    std::to_string(a.slices) + " slices, " + std::to_string(a.channels) +
                    " channels, " + std::to_string(a.frames) + " frames" +
                    (a.dx > 0 ? ", voxel " + Number(a.dx) + " x " + Number(a.dy) + " x " +
                                    (a.dz > 0 ? Number(a.dz) : std::string("?")) + " " + a.unit
                              : std::string()));
  }
  lines.push_back(name + "tone curve " + r.light);
  if (s.kernelSpec && s.kernelSpec->automatic)
    lines.push_back(name + "Gaussian sigma " + Number(r.estimatedSigma) +
                    " (gaussian:auto, estimated from the image)");
  if (s.engine.noiseModel == NoiseModel::kPoisson)
    lines.push_back(name + "photon counts over offset " + Number(r.report.offset) +
                    (s.engine.offset ? " (given)" : " (estimated)"));
  if (s.engine.noise) {
    lines.push_back(name + "noise strength " + Number(r.report.noiseStrength) + " (given)");
  } else {
    lines.push_back(name + "noise level " + Number(r.report.noiseLevel) +
                    " (estimated), noise strength " + Number(r.report.noiseStrength));
  }
  std::string times;
  double total = 0.0;
  for (const auto& [phase, seconds] : r.phaseSeconds) {
    times += (times.empty() ? "" : ", ") + phase + " " + Seconds(seconds);
    total += seconds;
  }
  lines.push_back(name + times + " (" + Seconds(total) + " in all)");
  lines.push_back(name + "written to " + plan.output + " with " + SampleDepthWords(r.outputDepth) +
                  " samples");
  return lines;
}

}  // namespace

void PrintUsageError(const std::string& message) {
  std::fprintf(stderr, "%s%s\nTry 'marlith-deblur --help' for more information.\n", kProgram,
               Printable(message).c_str());
}

int RunDeblur(const DeblurSettings& s, const std::atomic<int>& interrupt) {
  std::vector<PlannedImage> plan;
  try {
    plan = PlanOutputs(s);
  } catch (const UsageProblem& e) {
    PrintUsageError(e.what());
    return kExitUsage;
  } catch (const Error& e) {
    std::fprintf(stderr, "%s%s\n", kProgram, Printable(e.what()).c_str());
    return kExitFailure;
  }

  if (s.skipExisting) {
    // A result is written whole or not at all, so one that exists is a finished one.
    std::erase_if(plan, [&](const PlannedImage& p) {
      std::error_code ignored;
      if (!std::filesystem::exists(p.output, ignored)) return false;
      if (s.verbosity == Verbosity::kVerbose)
        std::fprintf(stderr, "%s%s: skipped, %s exists\n", kProgram, Printable(p.input).c_str(),
                     Printable(p.output).c_str());
      return true;
    });
    if (plan.empty()) return kExitSuccess;
  }

  KernelFile kernel;
  try {
    if (!s.kernelSpec) {
      kernel = ReadKernelFile(s.kernelPath);
      if (s.engine.kernelOrigin == KernelOrigin::kCenter)
        if (std::string w = OffCentreWarning(kernel, s.kernelPath); !w.empty())
          kernel.warnings.push_back(std::move(w));
    } else if (!s.kernelSpec->automatic) {
      Kernel k = MakeKernel(*s.kernelSpec);
      if (k.depth > 1)
        throw Error("--kernel " + s.kernelPath + ": a 3-D PSF of " + std::to_string(k.depth) +
                    " planes; stacks are restored plane by plane with a 2-D PSF (leave out dz "
                    "and nz for the in-focus plane)");
      kernel = {std::move(k.values), k.width, k.height, {}};
    }
  } catch (const Error& e) {
    std::fprintf(stderr, "%s%s%s\n", kProgram, Printable(e.what()).c_str(),
                 Printable(SwapHint(s)).c_str());
    return kExitFailure;
  }
  // The mask is read once, before any work.
  DeblurSettings settings = s;
  if (!s.maskPath.empty()) {
    try {
      settings.mask = std::make_shared<const LoadedImage>(ReadImageFile(s.maskPath));
    } catch (const Error& e) {
      std::fprintf(stderr, "%s--mask: %s\n", kProgram, Printable(e.what()).c_str());
      return kExitFailure;
    }
  }
  // A kernel the images do not change is written before the run, a failure before any work.
  const bool kernelPerImage = s.engine.refineKernel || (s.kernelSpec && s.kernelSpec->automatic);
  if (!s.kernelOut.empty() && !kernelPerImage) {
    try {
      WriteKernelFile(s.kernelOut, NormalisedValues(kernel.values), kernel.width, kernel.height);
    } catch (const Error& e) {
      std::fprintf(stderr, "%s--kernel-out: %s\n", kProgram, Printable(e.what()).c_str());
      return kExitFailure;
    }
  }
  if (s.verbosity != Verbosity::kQuiet)
    for (const std::string& w : kernel.warnings)
      std::fprintf(stderr, "%swarning: %s\n", kProgram, Printable(w).c_str());

  const int images = static_cast<int>(plan.size());
  const int jobs = std::min(s.jobs, images);
  // --threads counts the threads of the whole run; each job gets its share.
  const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  const int threads = s.engine.threads == 0 ? (jobs == 1 ? 0 : std::max(1, cores / jobs))
                                            : std::max(1, s.engine.threads / jobs);

  ProgressDisplay display(DisplayMode(s), images);
  std::atomic<int> next{0}, failed{0}, restored{0};
  auto work = [&] {
    for (int i = next++; i < images && interrupt.load() == 0; i = next++) {
      const PlannedImage& p = plan[static_cast<size_t>(i)];
      std::string error;
      try {
        const RestoredImage r = RestoreImage(p, kernel, settings, threads,
                                             [&](std::string_view phase, double fraction) {
                                               display.Update(i, p.input, phase, fraction);
                                               return interrupt.load() == 0;
                                             });
        if (!s.kernelOut.empty() && kernelPerImage)
          WriteKernelFile(s.kernelOut, NormalisedValues(r.kernel), r.kernelWidth, r.kernelHeight);
        ++restored;
        if (s.verbosity != Verbosity::kQuiet)
          for (const std::string& w : r.warnings) display.Message(kProgram + ("warning: " + w));
        if (s.verbosity == Verbosity::kVerbose)
          for (const std::string& line : Describe(p, r, s)) display.Message(kProgram + line);
      } catch (const Cancelled&) {
        // Said once for the whole run below.
      } catch (const Error& e) {
        error = e.what();
      } catch (const std::bad_alloc&) {
        error = p.input + ": not enough memory to restore it" +
                (jobs > 1 ? std::string(" (fewer --jobs need less)") : std::string());
      } catch (const std::exception& e) {
        error = p.input + ": " + e.what();
      }
      if (!error.empty()) {
        ++failed;
        display.Message(kProgram + error);
      }
      display.Finish(i);
    }
  };
  std::vector<std::thread> workers;
  // A job thread the system refuses (too many threads for the user) leaves its images to the
  // others.
  try {
    for (int j = 1; j < jobs; ++j) workers.emplace_back(work);
  } catch (const std::system_error&) {
  }
  work();
  for (std::thread& t : workers) t.join();
  display.Close();

  if (const int signal = interrupt.load(); signal != 0) {
    std::fprintf(stderr, "%sinterrupted: %d of %d images restored, no file written partly\n",
                 kProgram, restored.load(), images);
    return 128 + signal;
  }
  if (failed > 0) {
    if (images > 1)
      std::fprintf(stderr, "%s%d of %d images could not be restored\n", kProgram, failed.load(),
                   images);
    return kExitFailure;
  }
  return kExitSuccess;
}

}  // namespace marlith
