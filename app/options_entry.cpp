// The C options entry: a thin mapping of the C structs onto the C++ options API, whose header
// holds the defaults.
#include <cmath>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "marlith/deconvolve.hpp"
#include "marlith/marlith.h"

namespace {

thread_local std::string lastError;

// Runs body, turning every exception into a result code and the thread's last error.
template <typename Body>
int32_t Guarded(const char* what, Body body) {
  lastError.clear();
  try {
    body();
    return MARLITH_OK;
  } catch (const marlith::Cancelled& e) {
    lastError = e.what();
    return MARLITH_CANCELLED;
  } catch (const std::bad_alloc&) {
    lastError = std::string(what) + ": not enough memory";
  } catch (const std::exception& e) {
    lastError = std::string(what) + ": " + e.what();
  } catch (...) {
    lastError = std::string(what) + ": unknown failure";
  }
  return MARLITH_ERROR;
}

marlith::ImageView ViewOf(const MarlithImage* image, const char* name) {
  if (!image) throw marlith::Error(std::string(name) + " cannot be NULL");
  if (image->sampleType < MARLITH_UINT8 || image->sampleType > MARLITH_FLOAT64) {
    throw marlith::Error(std::string(name) + " has an unknown sample type " +
                         std::to_string(image->sampleType));
  }
  return {image->data,
          static_cast<marlith::SampleType>(image->sampleType),
          image->width,
          image->height,
          image->channels,
          static_cast<std::ptrdiff_t>(image->columnStride),
          static_cast<std::ptrdiff_t>(image->rowStride),
          static_cast<std::ptrdiff_t>(image->channelStride)};
}

// The caller's options over the defaults: a shorter (older) struct keeps the defaults for the
// fields it lacks.
MarlithOptions Complete(const MarlithOptions* given) {
  MarlithOptions options;
  marlithDefaultOptions(&options);
  if (!given) return options;
  if (given->size < sizeof(uint32_t) || given->size > sizeof(MarlithOptions)) {
    throw marlith::Error("the options' size field (" + std::to_string(given->size) +
                         ") is not that of a MarlithOptions; fill it with marlithDefaultOptions");
  }
  std::memcpy(&options, given, given->size);
  options.size = sizeof(MarlithOptions);
  return options;
}

template <typename Enum>
Enum Choice(int32_t value, int32_t last, const char* name) {
  if (value < 0 || value > last) {
    throw marlith::Error(std::string("the ") + name + " option has no value " +
                         std::to_string(value));
  }
  return static_cast<Enum>(value);
}

}  // namespace

extern "C" {

void marlithDefaultOptions(MarlithOptions* options) {
  if (!options) return;
  const marlith::DeconvolveOptions defaults;
  *options = MarlithOptions{};
  options->size = sizeof(MarlithOptions);
  options->noiseAutomatic = defaults.noise ? 0 : 1;
  options->noise = defaults.noise.value_or(0.0);
  options->boundary = static_cast<int32_t>(defaults.boundary);
  options->margins = static_cast<int32_t>(defaults.margins);
  options->kernelOrigin = static_cast<int32_t>(defaults.kernelOrigin);
  options->refineKernel = defaults.refineKernel ? 1 : 0;
  options->threads = defaults.threads;
  options->progress = nullptr;
  options->progressUser = nullptr;
  options->colorspace = static_cast<int32_t>(defaults.colorspace);
  options->noiseModel = static_cast<int32_t>(defaults.noiseModel);
  options->offsetAutomatic = defaults.offset ? 0 : 1;
  options->offset = defaults.offset.value_or(0.0);
}

int32_t marlithDeconvolveImage(const MarlithImage* input, const MarlithImage* output,
                               const double* kernel, int32_t kernelWidth, int32_t kernelHeight,
                               const MarlithOptions* options, MarlithReport* report) {
  return Guarded("marlithDeconvolveImage", [&] {
    const marlith::ConstImageView in = ViewOf(input, "input");
    const marlith::ImageView out = ViewOf(output, "output");
    if (!kernel) throw marlith::Error("kernel cannot be NULL");
    if (report && (report->size < sizeof(uint32_t) || report->size > sizeof(MarlithReport))) {
      throw marlith::Error("the report's size field (" + std::to_string(report->size) +
                           ") is not that of a MarlithReport");
    }
    const MarlithOptions o = Complete(options);
    marlith::DeconvolveOptions opts;
    if (!o.noiseAutomatic) opts.noise = o.noise;
    opts.boundary = Choice<marlith::Boundary>(o.boundary, 1, "boundary");
    opts.margins = Choice<marlith::Margins>(o.margins, 1, "margins");
    opts.kernelOrigin = Choice<marlith::KernelOrigin>(o.kernelOrigin, 1, "kernel origin");
    opts.refineKernel = o.refineKernel != 0;
    opts.threads = o.threads;
    opts.colorspace = Choice<marlith::Colorspace>(o.colorspace, 1, "colorspace");
    opts.noiseModel = Choice<marlith::NoiseModel>(o.noiseModel, 1, "noise model");
    if (!o.offsetAutomatic) opts.offset = o.offset;
    if (o.progress) {
      opts.progress = [&o](std::string_view phase, double fraction) {
        const std::string name(phase);
        return o.progress(name.c_str(), fraction, o.progressUser) == 0;
      };
    }
    const size_t kernelCount =
        kernelWidth > 0 && kernelHeight > 0 ? static_cast<size_t>(kernelWidth) * kernelHeight : 0;
    const marlith::DeconvolveReport r =
        marlith::Deconvolve(in, {{kernel, kernelCount}, kernelWidth, kernelHeight}, out, opts);
    if (report) {
      // Only the fields the caller's struct has are written.
      MarlithReport full{};
      std::memcpy(&full, report, report->size);
      full.noiseLevel = r.noiseLevel;
      full.noiseStrength = r.noiseStrength;
      full.kernelWidth = r.kernelWidth;
      full.kernelHeight = r.kernelHeight;
      full.offset = r.offset;
      // The kernel fields are there in every struct since they were added.
      if (report->size >= offsetof(MarlithReport, kernelCapacity) + sizeof(int64_t) &&
          full.kernel && full.kernelCapacity >= static_cast<int64_t>(r.kernel.size())) {
        std::memcpy(full.kernel, r.kernel.data(), r.kernel.size() * sizeof(double));
      }
      std::memcpy(report, &full, report->size);
    }
  });
}

int32_t marlithEstimateNoise(const MarlithImage* image, double* level, double* strength) {
  return Guarded("marlithEstimateNoise", [&] {
    const marlith::NoiseReport r = marlith::EstimateNoise(ViewOf(image, "image"));
    if (level) *level = r.level;
    if (strength) *strength = r.strength;
  });
}

const char* marlithLastError(void) { return lastError.c_str(); }

const char* marlithVersion(void) { return MARLITH_VERSION; }

}  // extern "C"
