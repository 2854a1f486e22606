#include "image/tone_curve.h"

#include <lcms2.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>

namespace marlith {
namespace {

// Curves within this of the line or of the sRGB curve (on the 0 to 1 scale, at every table
// entry) are taken as those: a tenth of an 8-bit step's light near white, and the engine's own
// formulas are exact.
constexpr double kSameCurve = 1e-3;
// The least rise from one table entry to the next: flat stretches (a profile's clipped toe)
// would give the curve no inverse.
constexpr double kLeastStep = 1e-9;

double SrgbToLinear(double e) {
  return e <= 0.04045 ? e / 12.92 : std::pow((e + 0.055) / 1.055, 2.4);
}

double Encoded(int i) { return static_cast<double>(i) / (kToneCurveSize - 1); }

std::vector<double> Tabulate(const std::function<double(double)>& toLinear) {
  std::vector<double> table(kToneCurveSize);
  for (int i = 0; i < kToneCurveSize; ++i) table[i] = toLinear(Encoded(i));
  return table;
}

double MaxDifference(const std::vector<double>& a, const std::vector<double>& b) {
  double far = 0.0;
  for (size_t i = 0; i < a.size(); ++i) far = std::max(far, std::abs(a[i] - b[i]));
  return far;
}

// The exponent a pure power curve through the table's mid-grey would have, for messages.
std::string GammaWords(const std::vector<double>& table) {
  const double mid = table[(kToneCurveSize - 1) / 2];
  char text[48];
  std::snprintf(text, sizeof text, "gamma %.2g",
                std::log(mid) / std::log(Encoded((kToneCurveSize - 1) / 2)));
  return text;
}

// Scales table to run from 0 to 1 and makes it strictly increasing; false when it does not rise
// from its first entry to its last (or holds a non-finite value).
bool Normalise(std::vector<double>& table) {
  for (double v : table)
    if (!std::isfinite(v)) return false;
  const double low = table.front(), span = table.back() - low;
  if (!(span > 0.0)) return false;
  for (int i = 0; i < kToneCurveSize; ++i) {
    table[i] = (table[i] - low) / span;
    if (i > 0) table[i] = std::max(table[i], table[i - 1] + kLeastStep);
  }
  const double top = table.back();
  for (double& v : table) v /= top;
  return true;
}

// The curve table gives (normalised), named as the line or sRGB when it is one of them.
ToneCurve Classify(std::vector<double> table, const std::string& source) {
  ToneCurve curve;
  if (MaxDifference(table, Tabulate([](double e) { return e; })) < kSameCurve) {
    curve.kind = ToneCurve::Kind::kLinear;
    curve.description = "linear light (" + source + ")";
  } else if (MaxDifference(table, Tabulate(SrgbToLinear)) < kSameCurve) {
    curve.kind = ToneCurve::Kind::kSrgb;
    curve.description = "sRGB (" + source + ")";
  } else {
    curve.kind = ToneCurve::Kind::kTable;
    curve.description = "like " + GammaWords(table) + " (" + source + ")";
  }
  curve.table = std::move(table);
  return curve;
}

ToneCurve Fallback(std::string description, std::string warning) {
  ToneCurve curve;
  curve.kind = ToneCurve::Kind::kSrgb;
  curve.description = std::move(description);
  curve.warning = std::move(warning);
  return curve;
}

ToneCurve Formula(ToneCurve::Kind kind, const std::string& description,
                  const std::function<double(double)>& toLinear) {
  ToneCurve curve;
  curve.kind = kind;
  curve.description = description;
  if (kind == ToneCurve::Kind::kTable) {
    curve.table = Tabulate(toLinear);
    Normalise(curve.table);
  }
  return curve;
}

struct ProfileCloser {
  void operator()(void* profile) const { cmsCloseProfile(profile); }
};
using Profile = std::unique_ptr<void, ProfileCloser>;

struct TransformDeleter {
  void operator()(void* transform) const { cmsDeleteTransform(transform); }
};

// The luminance (Y, relative to the profile's white) of encoded greys R = G = B = i / (n - 1),
// through the profile's transform to XYZ: a matrix-shaper profile's channel curves weighted by
// the channels' luminance, or a lookup-table profile's grey axis. Empty when lcms cannot build
// the transform.
std::vector<double> GreyRamp(cmsHPROFILE profile, bool grey) {
  Profile xyz(cmsCreateXYZProfile());
  if (!xyz) return {};
  std::unique_ptr<void, TransformDeleter> transform(
      cmsCreateTransform(profile, grey ? TYPE_GRAY_DBL : TYPE_RGB_DBL, xyz.get(), TYPE_XYZ_DBL,
                         INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOOPTIMIZE | cmsFLAGS_NOCACHE));
  if (!transform) return {};
  const int channels = grey ? 1 : 3;
  std::vector<double> in(size_t(kToneCurveSize) * channels), out(size_t(kToneCurveSize) * 3);
  for (int i = 0; i < kToneCurveSize; ++i)
    for (int c = 0; c < channels; ++c) in[size_t(i) * channels + c] = Encoded(i);
  cmsDoTransform(transform.get(), in.data(), out.data(), kToneCurveSize);
  std::vector<double> luminance(kToneCurveSize);
  for (int i = 0; i < kToneCurveSize; ++i) luminance[i] = out[size_t(i) * 3 + 1];
  return luminance;
}

// The table of one TRC tag, or empty when the profile has none.
std::vector<double> TagCurve(cmsHPROFILE profile, cmsTagSignature tag) {
  const auto* trc = static_cast<const cmsToneCurve*>(cmsReadTag(profile, tag));
  if (!trc) return {};
  return Tabulate([trc](double e) { return cmsEvalToneCurveFloat(trc, static_cast<float>(e)); });
}

}  // namespace

ToneCurve ToneCurveFromIcc(std::string_view bytes) {
  const std::string fallback = "sRGB (the ICC profile was not used)";
  if (bytes.size() < 128 || bytes.size() > UINT32_MAX)
    return Fallback(fallback, "the ICC profile is too short to read");
  Profile profile(cmsOpenProfileFromMem(bytes.data(), static_cast<cmsUInt32Number>(bytes.size())));
  if (!profile) return Fallback(fallback, "the ICC profile cannot be read");
  const cmsColorSpaceSignature space = cmsGetColorSpace(profile.get());
  if (space != cmsSigGrayData && space != cmsSigRgbData)
    return Fallback(fallback, "the ICC profile is not for grey or RGB samples");
  const bool grey = space == cmsSigGrayData;

  // The curves themselves when the profile has them and they agree: exact, whatever the
  // primaries. RGB curves that differ give way to the grey ramp, which weighs each by its
  // channel's share of luminance.
  std::vector<double> table;
  if (grey) {
    table = TagCurve(profile.get(), cmsSigGrayTRCTag);
  } else {
    std::array<std::vector<double>, 3> rgb{TagCurve(profile.get(), cmsSigRedTRCTag),
                                           TagCurve(profile.get(), cmsSigGreenTRCTag),
                                           TagCurve(profile.get(), cmsSigBlueTRCTag)};
    const bool all = !rgb[0].empty() && !rgb[1].empty() && !rgb[2].empty();
    if (all && MaxDifference(rgb[0], rgb[1]) < kSameCurve &&
        MaxDifference(rgb[2], rgb[1]) < kSameCurve)
      table = std::move(rgb[1]);
  }
  std::string source = "the ICC profile's curve";
  if (table.empty()) {
    table = GreyRamp(profile.get(), grey);
    source = "the ICC profile's grey ramp";
  }
  if (table.empty() || !Normalise(table))
    return Fallback(fallback, "the ICC profile gives no tone curve that rises from black to white");
  return Classify(std::move(table), source);
}

ToneCurve ToneCurveFromPngChunks(const PngLightChunks& chunks) {
  auto byte = [](const std::string& data, size_t i) { return static_cast<uint8_t>(data[i]); };
  std::string warning;
  if (chunks.cicp.size() == 4) {
    // ITU-T H.273's transfer characteristics.
    const std::string source = " (the PNG cICP chunk)";
    switch (byte(chunks.cicp, 1)) {
      case 1:
      case 6:
      case 14:
      case 15:
        return Formula(ToneCurve::Kind::kTable, "BT.709" + source, [](double e) {
          return e < 0.081 ? e / 4.5 : std::pow((e + 0.099) / 1.099, 1.0 / 0.45);
        });
      case 4:
        return Formula(ToneCurve::Kind::kTable, "gamma 2.2" + source,
                       [](double e) { return std::pow(e, 2.2); });
      case 5:
        return Formula(ToneCurve::Kind::kTable, "gamma 2.8" + source,
                       [](double e) { return std::pow(e, 2.8); });
      case 8:
        return Formula(ToneCurve::Kind::kLinear, "linear light" + source, nullptr);
      case 13:
        return Formula(ToneCurve::Kind::kSrgb, "sRGB" + source, nullptr);
      case 16:  // SMPTE ST 2084, linear light as a fraction of 10,000 cd/m2
        return Formula(ToneCurve::Kind::kTable, "PQ" + source, [](double e) {
          constexpr double m1 = 0.1593017578125, m2 = 78.84375, c1 = 0.8359375, c2 = 18.8515625,
                           c3 = 18.6875;
          const double p = std::pow(e, 1.0 / m2);
          return std::pow(std::max(p - c1, 0.0) / (c2 - c3 * p), 1.0 / m1);
        });
      case 18:  // ARIB STD-B67 (HLG), scene light
        return Formula(ToneCurve::Kind::kTable, "HLG" + source, [](double e) {
          constexpr double a = 0.17883277, b = 0.28466892, c = 0.55991073;
          return e <= 0.5 ? e * e / 3.0 : (std::exp((e - c) / a) + b) / 12.0;
        });
      default:
        warning = "the PNG cICP chunk's transfer function " + std::to_string(byte(chunks.cicp, 1)) +
                  " is not known";
    }
  }
  if (!chunks.srgb.empty())
    return Formula(ToneCurve::Kind::kSrgb, "sRGB (the PNG sRGB chunk)", nullptr);
  if (chunks.gama.size() == 4) {
    const uint32_t value = uint32_t{byte(chunks.gama, 0)} << 24 |
                           uint32_t{byte(chunks.gama, 1)} << 16 |
                           uint32_t{byte(chunks.gama, 2)} << 8 | byte(chunks.gama, 3);
    // gAMA holds the encoding exponent: linear light is the sample to the power 100000 / value.
    const double exponent = value > 0 ? 100000.0 / value : 0.0;
    const std::string source = " (the PNG gAMA chunk)";
    if (exponent >= 0.2 && exponent <= 5.0) {
      if (std::abs(exponent - 1.0) < 0.01)
        return Formula(ToneCurve::Kind::kLinear, "linear light" + source, nullptr);
      char words[32];
      std::snprintf(words, sizeof words, "gamma %.3g", exponent);
      return Formula(ToneCurve::Kind::kTable, words + source,
                     [exponent](double e) { return std::pow(e, exponent); });
    }
    warning += (warning.empty() ? "" : "; ") + std::string("the PNG gAMA chunk's value ") +
               std::to_string(value) + " is outside 20000 to 500000";
  }
  if (!warning.empty()) return Fallback("sRGB (the PNG chunks were not used)", warning);
  return Fallback("sRGB (the file does not say)", "");
}

ToneCurve ImageToneCurve(const LoadedImage& image) {
  if (image.depth == SampleDepth::kFloat)
    return Formula(ToneCurve::Kind::kLinear, "linear light (floating-point samples)", nullptr);
  ToneCurve icc;
  if (!image.iccProfile.empty()) {
    icc = ToneCurveFromIcc(image.iccProfile);
    if (icc.warning.empty()) return icc;
  }
  const PngLightChunks& png = image.pngLight;
  const bool chunks = !png.gama.empty() || !png.srgb.empty() || !png.cicp.empty();
  ToneCurve curve = chunks || icc.warning.empty() ? ToneCurveFromPngChunks(png) : icc;
  // Every reason a curve the file gave was passed over, then what was taken instead.
  std::string reasons = icc.warning;
  if (chunks && !curve.warning.empty()) reasons += (reasons.empty() ? "" : "; ") + curve.warning;
  if (!reasons.empty())
    curve.warning =
        reasons + "; taken as " + curve.description.substr(0, curve.description.find(" ("));
  return curve;
}

ToneCurve ChosenToneCurve(Colorspace colorspace, std::string_view option) {
  const bool linear = colorspace == Colorspace::kLinear;
  return Formula(linear ? ToneCurve::Kind::kLinear : ToneCurve::Kind::kSrgb,
                 std::string(linear ? "linear light" : "sRGB") + " (" + std::string(option) +
                     (linear ? " linear)" : " srgb)"),
                 nullptr);
}

void ApplyToneCurve(const ToneCurve& curve, DeconvolveOptions& options) {
  options.toneCurve.clear();
  switch (curve.kind) {
    case ToneCurve::Kind::kLinear:
      options.colorspace = Colorspace::kLinear;
      break;
    case ToneCurve::Kind::kSrgb:
      options.colorspace = Colorspace::kSrgb;
      break;
    case ToneCurve::Kind::kTable:
      options.toneCurve = curve.table;
      break;
  }
}

double LinearLight(const ToneCurve& curve, double encoded) {
  switch (curve.kind) {
    case ToneCurve::Kind::kLinear:
      return encoded;
    case ToneCurve::Kind::kSrgb:
      return SrgbToLinear(std::clamp(encoded, 0.0, 1.0));
    case ToneCurve::Kind::kTable:
      break;
  }
  const double at = std::clamp(encoded, 0.0, 1.0) * (curve.table.size() - 1);
  const size_t i = std::min(static_cast<size_t>(at), curve.table.size() - 2);
  return curve.table[i] + (at - i) * (curve.table[i + 1] - curve.table[i]);
}

}  // namespace marlith
