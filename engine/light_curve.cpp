#include "engine/light_curve.h"

#include <algorithm>
#include <cmath>

#include "marlith/error.hpp"
#include "plane/worker_pool.h"

namespace marlith {

namespace {

// IEC 61966-2-1: a linear segment near black, a 2.4 power beyond.
double SrgbToLinear(double e) {
  if (e <= 0.04045) return e / 12.92;
  return std::pow((e + 0.055) / 1.055, 2.4);
}
double SrgbSlope(double e) {
  if (e <= 0.04045) return 1.0 / 12.92;
  return 2.4 / 1.055 * std::pow((e + 0.055) / 1.055, 1.4);
}
double SrgbToEncoded(double v) {
  if (v <= 0.0031308) return 12.92 * v;
  return 1.055 * std::pow(v, 1.0 / 2.4) - 0.055;
}

}  // namespace

LightCurve LightCurve::FromTable(std::span<const double> table) {
  if (table.size() < 2) throw Error("a tone curve needs at least 2 values");
  for (size_t i = 0; i < table.size(); ++i) {
    if (!std::isfinite(table[i]) || (i > 0 && table[i] < table[i - 1]))
      throw Error("a tone curve must be finite and non-decreasing");
  }
  const double low = table.front(), high = table.back();
  if (!(high > low)) throw Error("a tone curve must rise from its first value to its last");
  LightCurve curve(Kind::kTable);
  curve.table_.resize(table.size());
  for (size_t i = 0; i < table.size(); ++i) curve.table_[i] = (table[i] - low) / (high - low);
  return curve;
}

double LightCurve::ToLinear(double e) const {
  switch (kind_) {
    case Kind::kLinear:
      return e;
    case Kind::kSrgb:
      if (e > 1.0) return 1.0 + (e - 1.0) * SrgbSlope(1.0);
      return e < 0.0 ? e / 12.92 : SrgbToLinear(e);
    case Kind::kTable:
      break;
  }
  const size_t last = table_.size() - 1;
  const double position = std::clamp(e, 0.0, 1.0) * last;
  const size_t i = std::min(static_cast<size_t>(position), last - 1);
  const double value = table_[i] + (position - i) * (table_[i + 1] - table_[i]);
  if (e < 0.0) return e * Slope(0.0);
  if (e > 1.0) return 1.0 + (e - 1.0) * Slope(1.0);
  return value;
}

double LightCurve::Slope(double e) const {
  switch (kind_) {
    case Kind::kLinear:
      return 1.0;
    case Kind::kSrgb:
      return SrgbSlope(std::clamp(e, 0.0, 1.0));
    case Kind::kTable:
      break;
  }
  const size_t last = table_.size() - 1;
  const size_t i = std::min(static_cast<size_t>(std::clamp(e, 0.0, 1.0) * last), last - 1);
  return (table_[i + 1] - table_[i]) * last;
}

double LightCurve::ToEncoded(double v) const {
  switch (kind_) {
    case Kind::kLinear:
      return v;
    case Kind::kSrgb:
      if (v > 1.0) return 1.0 + (v - 1.0) / SrgbSlope(1.0);
      return v < 0.0 ? 12.92 * v : SrgbToEncoded(v);
    case Kind::kTable:
      break;
  }
  if (v <= 0.0) {
    const double slope = Slope(0.0);
    return slope > 0.0 ? v / slope : 0.0;
  }
  if (v >= 1.0) return 1.0 + (v - 1.0) / std::max(Slope(1.0), 1e-12);
  // The last table entry not above v, then linear between it and the next.
  const auto upper = std::upper_bound(table_.begin(), table_.end(), v);
  const size_t i = static_cast<size_t>(upper - table_.begin()) - 1;
  const size_t last = table_.size() - 1;
  if (i >= last) return 1.0;
  const double step = table_[i + 1] - table_[i];
  const double fraction = step > 0.0 ? (v - table_[i]) / step : 0.0;
  return (i + fraction) / last;
}

void LightCurve::Linearise(std::span<double> samples, int threads) const {
  if (IsLinear()) return;
  RunParallelFor(static_cast<std::ptrdiff_t>(samples.size()), threads,
                 [&](std::ptrdiff_t i) { samples[i] = ToLinear(samples[i]); });
}

void LightCurve::Encode(std::span<double> samples, int threads) const {
  if (IsLinear()) return;
  RunParallelFor(static_cast<std::ptrdiff_t>(samples.size()), threads,
                 [&](std::ptrdiff_t i) { samples[i] = ToEncoded(samples[i]); });
}

}  // namespace marlith
