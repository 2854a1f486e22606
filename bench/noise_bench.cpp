// The automatic noise strength: how well EstimateNoiseLevel reads the noise of blurred images and
// how close NoiseStrengthForLevel's strength comes to the best fixed one.
//
// Two kinds of input, each split into images the rule is fitted on and images it is judged on:
//   (a) Levin et al.'s 4 images x 8 kernels, blurred circularly, restored with boundary type 0;
//       fitted on im1 and im2, judged on im3 and im4;
//   (b) photographs from scikit-image's data set and xplanet's Earth (Debian packages
//       python3-skimage and xplanet-images, `scripts/install-deps.sh --bench`), crops of at most
//       320 x 320, colour and grey, each blurred with two of Levin's kernels with replicated
//       borders and restored with boundary type 1; five photographs on each side.
// Every blurred image gets white Gaussian noise of 0.5, 1, 2, 3 and 5 % of the range (a fixed
// seed per image and level) and is rounded to 8 bits, as an image file would be. PSNR is taken on
// the interior (a margin of the kernel size cut off) after the best integer shift within 2
// samples: the engine re-centres a kernel on its support, which can move its output.
//
// The strength is swept on a log grid (steps of 2^(1/4)) by climbing to the best mean PSNR.
//
// Usage: noise_bench [Levin data folder, default ../shared/data/levin] [mode]
//   mode estimate:  the estimator alone, on every image (no deconvolution)
//   mode calibrate: the sweep on the fitting images and the fitted rule strength = c level^p
//   mode evaluate:  the table on the held-out images (the rule as compiled into the engine)
//   no mode:        calibrate, then evaluate
// Two optional arguments after the mode narrow a run for quick looks: the set (levin, photo or
// all) and one noise level (e.g. 0.005); the defaults run everything.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/synthesis.h"
#include "engine/engine_driver.h"
#include "engine/noise_estimate.h"

namespace {

using Kernel = marlith::synthesis::TextKernel;
using marlith::synthesis::ReadKernelText;

using marlith::synthesis::BlurBorder;

constexpr double kAllLevels[] = {0.005, 0.01, 0.02, 0.03, 0.05};
// The levels a run covers: all of them, or the one given on the command line.
std::vector<double> gLevels(std::begin(kAllLevels), std::end(kAllLevels));
constexpr int kCropSide = 320;
constexpr double kGridStep = 0.25;       // log2 of the ratio between neighbouring strengths
constexpr double kReadmeStrength = 0.1;  // the README's advice for 0.5 to 1 % noise

double GridStrength(int k) { return std::exp2(kGridStep * k); }

// One sharp image, its kernel and its noise-free blur.
struct Case {
  std::string name;
  std::vector<double> sharp, clean;
  int w = 0, h = 0, channels = 0;
  Kernel kernel;
  int boundary = 0;
  uint32_t seed = 0;
};

// The case's blur with noise of the given level, rounded to 8 bits.
std::vector<double> Noisy(const Case& c, double level) {
  std::vector<double> out = c.clean;
  marlith::synthesis::AddGaussianNoise(out, level,
                                       c.seed * 16 + static_cast<uint32_t>(level * 1e4));
  marlith::synthesis::QuantiseTo8Bit(out);
  return out;
}

// PSNR over the interior (margin cut off) of all channels, at the best shift within 2 samples.
double ShiftedPsnr(const std::vector<double>& restored, const Case& c) {
  const int m = c.kernel.width;
  const size_t planeSize = static_cast<size_t>(c.w) * c.h;
  double best = 1e300;
  for (int dy = -2; dy <= 2; ++dy)
    for (int dx = -2; dx <= 2; ++dx) {
      double sum = 0.0;
      for (int ch = 0; ch < c.channels; ++ch)
        for (int y = m; y < c.h - m; ++y)
          for (int x = m; x < c.w - m; ++x) {
            const double d = restored[ch * planeSize + static_cast<size_t>(y + dy) * c.w + x + dx] -
                             c.sharp[ch * planeSize + static_cast<size_t>(y) * c.w + x];
            sum += d * d;
          }
      best = std::min(best, sum);
    }
  const double count = static_cast<double>(c.channels) * (c.w - 2 * m) * (c.h - 2 * m);
  return 10.0 * std::log10(count / best);
}

double Restore(const Case& c, const std::vector<double>& blurred, double strength) {
  std::vector<double> out(blurred.size());
  const DeconvRequest request{
      blurred.data(), out.data(),      c.kernel.values.data(), c.w,        c.h,       c.channels,
      c.kernel.width, c.kernel.height, strength / 2000.0,      1.0 * 20.0, c.boundary};
  marlith::RunDeconvEngine(request, marlith::kFrequencySolverVariant);
  return ShiftedPsnr(out, c);
}

// A set of cases at one noise level: the noisy inputs, their estimates, and PSNR per strength.
struct LevelRun {
  double level = 0.0;
  std::vector<std::vector<double>> inputs;
  std::vector<double> estimates;
  std::map<int, std::vector<double>> psnrByGrid;  // grid index -> PSNR per case
};

double Mean(const std::vector<double>& v) {
  double s = 0.0;
  for (double x : v) s += x;
  return s / v.size();
}

LevelRun Prepare(const std::vector<Case>& cases, double level) {
  LevelRun run;
  run.level = level;
  for (const Case& c : cases) {
    run.inputs.push_back(Noisy(c, level));
    run.estimates.push_back(marlith::EstimateNoiseLevel(run.inputs.back(), c.w, c.h, c.channels));
  }
  return run;
}

const std::vector<double>& PsnrAt(const std::vector<Case>& cases, LevelRun& run, int k) {
  auto it = run.psnrByGrid.find(k);
  if (it != run.psnrByGrid.end()) return it->second;
  std::vector<double> psnr;
  for (size_t i = 0; i < cases.size(); ++i)
    psnr.push_back(Restore(cases[i], run.inputs[i], GridStrength(k)));
  return run.psnrByGrid[k] = psnr;
}

// Climbs the grid from k to the strength of best mean PSNR (assumed unimodal); returns its index.
int ClimbToBest(const std::vector<Case>& cases, LevelRun& run, int k) {
  for (;;) {
    const double here = Mean(PsnrAt(cases, run, k));
    const double down = Mean(PsnrAt(cases, run, k - 1));
    const double up = Mean(PsnrAt(cases, run, k + 1));
    if (here >= down && here >= up) return k;
    k += up > down ? 1 : -1;
  }
}

// The best strength between grid points: the vertex of the parabola in log strength through the
// best grid point and its two neighbours.
double RefinedBest(const std::vector<Case>& cases, LevelRun& run, int k) {
  const double a = Mean(PsnrAt(cases, run, k - 1)), b = Mean(PsnrAt(cases, run, k)),
               c = Mean(PsnrAt(cases, run, k + 1));
  const double curvature = a - 2 * b + c;
  const double offset = curvature < 0 ? 0.5 * (a - c) / curvature : 0.0;
  return std::exp2(kGridStep * (k + std::clamp(offset, -0.5, 0.5)));
}

int GridIndexNear(double strength) {
  return static_cast<int>(std::lround(std::log2(strength) / kGridStep));
}

// ---- the images ----

std::vector<Case> LevinCases(const std::string& folder, std::initializer_list<int> images) {
  std::vector<Case> cases;
  for (int i : images) {
    const auto image =
        marlith::synthesis::ReadImagePlanes(folder + "/im" + std::to_string(i) + ".png");
    for (int k = 1; k <= 8; ++k) {
      Case c;
      c.name = "im" + std::to_string(i) + "-k" + std::to_string(k);
      c.kernel = ReadKernelText(folder + "/kernel" + std::to_string(k) + ".txt");
      c.sharp = image.planes;
      c.w = image.width;
      c.h = image.height;
      c.channels = image.channels;
      c.boundary = 0;
      c.seed = 100 * i + k;
      c.clean = marlith::synthesis::Blur(c.sharp, c.w, c.h, c.channels, c.kernel.values,
                                         c.kernel.width, c.kernel.height, BlurBorder::kCircular);
      cases.push_back(std::move(c));
    }
  }
  return cases;
}

struct Photo {
  const char* path;
  int left, top;  // crop origin; -1 centres the crop
  int kernels[2];
};

const char kSkimage[] = "/usr/lib/python3/dist-packages/skimage/data/";

std::vector<Case> PhotoCases(const std::string& levin, const std::vector<Photo>& photos) {
  std::vector<Case> cases;
  for (const Photo& p : photos) {
    const auto image = marlith::synthesis::ReadImagePlanes(p.path);
    const int side = std::min({kCropSide, image.width, image.height});
    const int left = p.left >= 0 ? p.left : (image.width - side) / 2;
    const int top = p.top >= 0 ? p.top : (image.height - side) / 2;
    std::vector<double> crop;
    for (int ch = 0; ch < image.channels; ++ch)
      for (int y = top; y < top + side; ++y)
        for (int x = left; x < left + side; ++x)
          crop.push_back(
              image.planes[(static_cast<size_t>(ch) * image.height + y) * image.width + x]);
    for (int k : p.kernels) {
      Case c;
      std::string name = p.path;
      name = name.substr(name.find_last_of('/') + 1);
      c.name = name.substr(0, name.find('.')) + "-k" + std::to_string(k);
      c.kernel = ReadKernelText(levin + "/kernel" + std::to_string(k) + ".txt");
      c.sharp = crop;
      c.w = c.h = side;
      c.channels = image.channels;
      c.boundary = 1;
      c.seed = 7919 * (cases.size() + 1) + k;
      c.clean = marlith::synthesis::Blur(c.sharp, c.w, c.h, c.channels, c.kernel.values,
                                         c.kernel.width, c.kernel.height, BlurBorder::kReplicated);
      cases.push_back(std::move(c));
    }
  }
  return cases;
}

std::string Skimage(const char* name) { return std::string(kSkimage) + name; }

struct Sets {
  std::vector<Case> levinFit, levinHeldOut, photoFit, photoHeldOut;
};

Sets MakeSets(const std::string& levin) {
  const std::string astronaut = Skimage("astronaut.png"), coffee = Skimage("coffee.png"),
                    camera = Skimage("camera.png"), brick = Skimage("brick.png"),
                    rocket = Skimage("rocket.jpg"), chelsea = Skimage("chelsea.png"),
                    motorcycle = Skimage("motorcycle_left.png"), coins = Skimage("coins.png"),
                    gravel = Skimage("gravel.png");
  Sets s;
  s.levinFit = LevinCases(levin, {1, 2});
  s.levinHeldOut = LevinCases(levin, {3, 4});
  s.photoFit = PhotoCases(levin, {{astronaut.c_str(), 96, 0, {1, 2}},
                                  {coffee.c_str(), -1, -1, {3, 4}},
                                  {camera.c_str(), -1, -1, {5, 6}},
                                  {brick.c_str(), -1, -1, {7, 8}},
                                  {rocket.c_str(), -1, -1, {2, 5}}});
  s.photoHeldOut = PhotoCases(levin, {{chelsea.c_str(), -1, -1, {6, 1}},
                                      {motorcycle.c_str(), -1, -1, {8, 3}},
                                      {"/usr/share/xplanet/images/earth.jpg", 1000, 200, {4, 7}},
                                      {coins.c_str(), -1, -1, {2, 5}},
                                      {gravel.c_str(), -1, -1, {1, 6}}});
  return s;
}

// ---- the modes ----

void PrintEstimates(const char* title, const std::vector<Case>& cases) {
  std::printf("%s\n", title);
  for (double level : gLevels) {
    const LevelRun run = Prepare(cases, level);
    double worst = 0.0;
    std::string worstName;
    for (size_t i = 0; i < cases.size(); ++i) {
      const double e = run.estimates[i] / level - 1.0;
      if (std::fabs(e) > std::fabs(worst)) {
        worst = e;
        worstName = cases[i].name;
      }
    }
    std::printf("  level %.3f: mean estimate %.5f, worst relative error %+.1f %% (%s)\n", level,
                Mean(run.estimates), 100.0 * worst, worstName.c_str());
  }
  std::fflush(stdout);
}

struct FitPoint {
  double estimate, strength;
};

// Sweeps one fitting set at every level; prints and returns (mean estimate, best strength).
std::vector<FitPoint> Calibrate(const char* title, const std::vector<Case>& cases) {
  std::printf("\n### %s\n\n", title);
  std::printf(
      "| true level | mean estimate | best grid strength | mean PSNR there | refined best |\n");
  std::printf("|---|---|---|---|---|\n");
  std::vector<FitPoint> points;
  int start = GridIndexNear(0.05);
  for (double level : gLevels) {
    LevelRun run = Prepare(cases, level);
    const int k = ClimbToBest(cases, run, start);
    const double refined = RefinedBest(cases, run, k);
    std::printf("| %.1f %% | %.3f %% | %.4g | %.2f | %.4g |\n", 100 * level,
                100 * Mean(run.estimates), GridStrength(k), Mean(PsnrAt(cases, run, k)), refined);
    std::fflush(stdout);
    points.push_back({Mean(run.estimates), refined});
    start = k;
  }
  return points;
}

void FitRule(const std::vector<FitPoint>& points) {
  // Least squares of log strength = log c + p log level.
  double sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (const FitPoint& f : points) {
    const double x = std::log(f.estimate), y = std::log(f.strength);
    sx += x;
    sy += y;
    sxx += x * x;
    sxy += x * y;
  }
  const double n = points.size();
  const double p = (n * sxy - sx * sy) / (n * sxx - sx * sx);
  const double logC = (sy - p * sx) / n;
  double worst = 0.0;
  for (const FitPoint& f : points)
    worst = std::max(worst, std::fabs(logC + p * std::log(f.estimate) - std::log(f.strength)));
  std::printf("\nFitted rule: strength = %.5g x level^%.4f (largest misfit a factor %.3f)\n",
              std::exp(logC), p, std::exp(worst));
}

void Evaluate(const char* title, const std::vector<Case>& cases) {
  std::printf("\n### %s\n\n", title);
  std::printf(
      "| true level | estimated: mean | worst error | chosen strength: mean (range) | best fixed "
      "strength | PSNR chosen | PSNR best fixed | difference | PSNR at 0.1 |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|\n");
  for (double level : gLevels) {
    LevelRun run = Prepare(cases, level);
    double worst = 0.0, logSum = 0.0, lo = 1e300, hi = 0.0;
    std::vector<double> chosenPsnr;
    for (size_t i = 0; i < cases.size(); ++i) {
      const double e = run.estimates[i] / level - 1.0;
      if (std::fabs(e) > std::fabs(worst)) worst = e;
      const double s = marlith::NoiseStrengthForLevel(run.estimates[i]);
      logSum += std::log(s);
      lo = std::min(lo, s);
      hi = std::max(hi, s);
      chosenPsnr.push_back(Restore(cases[i], run.inputs[i], s));
    }
    const int k = ClimbToBest(cases, run, GridIndexNear(std::exp(logSum / cases.size())));
    const double chosen = Mean(chosenPsnr), fixed = Mean(PsnrAt(cases, run, k));
    // The README's strength for 0.5 to 1 % noise, for comparison.
    std::vector<double> readmePsnr;
    for (size_t i = 0; i < cases.size(); ++i)
      readmePsnr.push_back(Restore(cases[i], run.inputs[i], kReadmeStrength));
    std::printf(
        "| %.1f %% | %.3f %% | %+.1f %% | %.3g (%.3g to %.3g) | %.3g | %.2f | %.2f | %+.2f | %.2f "
        "|\n",
        100 * level, 100 * Mean(run.estimates), 100 * worst, std::exp(logSum / cases.size()), lo,
        hi, GridStrength(k), chosen, fixed, chosen - fixed, Mean(readmePsnr));
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : "../shared/data/levin";
  const std::string mode = argc > 2 ? argv[2] : "all";
  const std::string set = argc > 3 ? argv[3] : "all";
  if ((mode != "all" && mode != "estimate" && mode != "calibrate" && mode != "evaluate") ||
      (set != "all" && set != "levin" && set != "photo")) {
    std::fprintf(stderr,
                 "usage: noise_bench [levin folder] [estimate|calibrate|evaluate] "
                 "[all|levin|photo] [level]\n");
    return 2;
  }
  if (argc > 4) gLevels = {std::atof(argv[4])};
  const bool levinSet = set != "photo", photoSet = set != "levin";
  try {
    const Sets s = MakeSets(folder);
    if (mode == "estimate") {
      if (levinSet) {
        PrintEstimates("Levin, fitting images (im1, im2)", s.levinFit);
        PrintEstimates("Levin, held-out images (im3, im4)", s.levinHeldOut);
      }
      if (photoSet) {
        PrintEstimates("Photographs, fitting images", s.photoFit);
        PrintEstimates("Photographs, held-out images", s.photoHeldOut);
      }
      return 0;
    }
    if (mode == "all" || mode == "calibrate") {
      std::printf("## Calibration: the best fixed strength on the fitting images\n");
      std::vector<FitPoint> points;
      if (levinSet) points = Calibrate("(a) Levin im1, im2, circular blur, boundary 0", s.levinFit);
      if (photoSet) {
        const auto photo = Calibrate("(b) photographs, replicated borders, boundary 1", s.photoFit);
        points.insert(points.end(), photo.begin(), photo.end());
      }
      if (points.size() > 1) FitRule(points);
    }
    if (mode == "all" || mode == "evaluate") {
      std::printf("\n## The automatic strength on held-out images\n");
      if (levinSet)
        Evaluate("(a) Levin im3, im4 x 8 kernels, circular blur, boundary 0", s.levinHeldOut);
      if (photoSet) Evaluate("(b) photographs, replicated borders, boundary 1", s.photoHeldOut);
    }
  } catch (const std::exception& e) {
    const std::string message = e.what();
    const bool photo =
        message.find(kSkimage) != std::string::npos || message.find("xplanet") != std::string::npos;
    std::fprintf(stderr, "noise_bench: %s\n%s", e.what(),
                 photo ? "the photographs come with `scripts/install-deps.sh --bench`\n" : "");
    return 1;
  }
  return 0;
}
