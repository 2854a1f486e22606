#include "engine/photon_counts.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace marlith {

namespace {

// Bins of the variance fit; each holds an equal share of the cells.
constexpr int kVarianceBins = 32;

double Median(std::vector<double>& values) {
  const auto middle = values.begin() + values.size() / 2;
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

double EstimateOffset(std::span<const double> planes, int width, int height, int planesCount) {
  const int block = std::min({4, width, height});
  std::vector<double> means;
  means.reserve(planes.size() / (block * block) + 1);
  const size_t planeSize = static_cast<size_t>(width) * height;
  for (int p = 0; p < planesCount; ++p)
    for (int by = 0; by + block <= height; by += block)
      for (int bx = 0; bx + block <= width; bx += block) {
        double sum = 0.0;
        for (int y = by; y < by + block; ++y)
          for (int x = bx; x < bx + block; ++x)
            sum += planes[p * planeSize + static_cast<size_t>(y) * width + x];
        means.push_back(sum / (block * block));
      }
  const auto rank = means.begin() + means.size() / 50;
  std::nth_element(means.begin(), rank, means.end());
  return *rank;
}

PhotonModel EstimatePhotonModel(std::span<const double> planes, int width, int height,
                                int planesCount) {
  struct Cell {
    double mean, difference;
  };
  std::vector<Cell> cells;
  cells.reserve(planes.size() / 4 + 1);
  const size_t planeSize = static_cast<size_t>(width) * height;
  for (int p = 0; p < planesCount; ++p)
    for (int y = 0; y + 1 < height; y += 2)
      for (int x = 0; x + 1 < width; x += 2) {
        const double* top = planes.data() + p * planeSize + static_cast<size_t>(y) * width + x;
        const double* bottom = top + width;
        cells.push_back({(top[0] + top[1] + bottom[0] + bottom[1]) / 4.0,
                         (top[0] - top[1] - bottom[0] + bottom[1]) / 2.0});
      }
  PhotonModel model;
  if (cells.size() < 2 * kVarianceBins) return model;
  std::sort(cells.begin(), cells.end(),
            [](const Cell& a, const Cell& b) { return a.mean < b.mean; });

  // A robust variance in every bin: (1.4826 x the median absolute deviation)^2.
  std::vector<double> means, variances, counts;
  for (int b = 0; b < kVarianceBins; ++b) {
    const size_t first = cells.size() * b / kVarianceBins;
    const size_t last = cells.size() * (b + 1) / kVarianceBins;
    std::vector<double> values;
    double meanSum = 0.0;
    for (size_t i = first; i < last; ++i) {
      values.push_back(cells[i].difference);
      meanSum += cells[i].mean;
    }
    const double centre = Median(values);
    for (double& v : values) v = std::abs(v - centre);
    const double spread = 1.4826 * Median(values);
    means.push_back(std::max(meanSum / (last - first), 0.0));
    variances.push_back(spread * spread);
    counts.push_back(static_cast<double>(last - first));
  }
  // Weighted least squares of variance = alpha + beta mean; a bin's variance estimate has a
  // spread proportional to the variance, so bins weigh count / variance^2 (with a floor, as
  // noiseless dark bins read 0).
  double largest = *std::max_element(variances.begin(), variances.end());
  double meanVariance = 0.0, meanLevel = 0.0, total = 0.0;
  for (int b = 0; b < kVarianceBins; ++b) {
    meanVariance += counts[b] * variances[b];
    meanLevel += counts[b] * means[b];
    total += counts[b];
  }
  meanVariance /= total;
  meanLevel /= total;
  if (!(largest > 0.0)) {
    model.gain = 1e12;  // no noise to be seen
    return model;
  }
  const double floor = 1e-3 * largest;
  double sw = 0.0, sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
  for (int b = 0; b < kVarianceBins; ++b) {
    const double w = counts[b] / ((variances[b] + floor) * (variances[b] + floor));
    sw += w;
    sx += w * means[b];
    sy += w * variances[b];
    sxx += w * means[b] * means[b];
    sxy += w * means[b] * variances[b];
  }
  const double det = sw * sxx - sx * sx;
  const double beta = det > 0.0 ? (sw * sxy - sx * sy) / det : 0.0;
  const double alpha = det > 0.0 ? (sy - beta * sx) / sw : 0.0;
  if (!(beta > 1e-6 * meanVariance / std::max(meanLevel, 1e-300)) || !std::isfinite(beta)) {
    // No growth of the variance with the light: pure Poisson at the mean level.
    model.gain = meanLevel > 0.0 ? meanLevel / meanVariance : 1.0 / meanVariance;
    return model;
  }
  model.gain = 1.0 / beta;
  model.shift = std::max(alpha, 0.0) * model.gain;
  return model;
}

}  // namespace marlith
