// The tone curve that maps stored sample values to linear light and back: none (the samples
// are linear), sRGB, or a table (an ICC profile's curve). The blur happened in linear light, so
// the engine restores there and encodes the result back with the same curve.
#pragma once

#include <span>
#include <vector>

namespace marlith {

class LightCurve {
 public:
  static LightCurve Linear() { return LightCurve(Kind::kLinear); }
  static LightCurve Srgb() { return LightCurve(Kind::kSrgb); }
  // table[i] is the linear light of the encoded value i / (n - 1), n >= 2, non-decreasing with
  // table.front() < table.back() (throws marlith::Error otherwise); it is scaled to run from
  // 0 to 1.
  static LightCurve FromTable(std::span<const double> table);

  bool IsLinear() const { return kind_ == Kind::kLinear; }

  // Linear light of an encoded value (encoded values beyond [0, 1] follow the curve's end
  // slopes), its derivative, and the inverse (monotone, continuous).
  double ToLinear(double encoded) const;
  double Slope(double encoded) const;
  double ToEncoded(double linear) const;

  // The same for whole planes, in place, over threads.
  void Linearise(std::span<double> samples, int threads) const;
  void Encode(std::span<double> samples, int threads) const;

 private:
  enum class Kind { kLinear, kSrgb, kTable };
  explicit LightCurve(Kind kind) : kind_(kind) {}
  Kind kind_;
  std::vector<double> table_;  // kTable: linear light at n evenly spaced encoded values
};

}  // namespace marlith
