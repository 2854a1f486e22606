// The tone curve read from what a file says: ICC profiles made by Little CMS, PNG chunks, the
// rule that picks among them, and the chunks' way through a PNG file and back.
#include "image/tone_curve.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "support/test_support.h"

namespace marlith {
namespace {

using Kind = ToneCurve::Kind;
using Curve = std::function<double(double)>;

double Srgb(double e) { return e <= 0.04045 ? e / 12.92 : std::pow((e + 0.055) / 1.055, 2.4); }
Curve Power(double gamma) {
  return [gamma](double e) { return std::pow(e, gamma); };
}

// The largest difference between the table and the curve at the table's encoded values.
double Distance(const std::vector<double>& table, const Curve& curve) {
  double far = 0.0;
  for (size_t i = 0; i < table.size(); ++i)
    far = std::max(far, std::abs(table[i] - curve(double(i) / (table.size() - 1))));
  return far;
}

void ExpectTable(const ToneCurve& curve, const Curve& expected, double tolerance,
                 const std::string& what) {
  ASSERT_EQ(curve.table.size(), size_t(kToneCurveSize)) << what;
  EXPECT_EQ(curve.table.front(), 0.0) << what;
  EXPECT_EQ(curve.table.back(), 1.0) << what;
  for (size_t i = 1; i < curve.table.size(); ++i)
    ASSERT_GT(curve.table[i], curve.table[i - 1]) << what << " at " << i;
  EXPECT_LT(Distance(curve.table, expected), tolerance) << what;
}

std::string BigEndian(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }

TEST(ToneCurve, ReadsTheCurvesOfIccProfiles) {
  // sRGB's primaries' shares of luminance (Y of the D50-adapted colorants).
  const double yr = 0.2225, yg = 0.7169, yb = 0.0606;
  struct Row {
    std::string what;
    std::string profile;
    Kind kind;
    Curve curve;  // null: no table is checked
    double tolerance;
  };
  const Row rows[] = {
      {"sRGB", test::CurvesIccProfile({0, 0, 0}), Kind::kSrgb, Srgb, 1e-4},
      {"gamma 2.2", test::CurvesIccProfile({2.2, 2.2, 2.2}), Kind::kTable, Power(2.2), 1e-4},
      {"linear", test::CurvesIccProfile({1, 1, 1}), Kind::kLinear, nullptr, 0},
      {"grey gamma 1.8", test::CurvesIccProfile({0, 1.8, 0}, true), Kind::kTable, Power(1.8), 1e-4},
      // Channels that differ: the light of a neutral grey, each curve weighed by its share.
      {"gammas 1.8, 2.2, 2.6", test::CurvesIccProfile({1.8, 2.2, 2.6}), Kind::kTable,
       [&](double e) {
         return yr * std::pow(e, 1.8) + yg * std::pow(e, 2.2) + yb * std::pow(e, 2.6);
       },
       2e-3},
  };
  for (const Row& row : rows) {
    const ToneCurve curve = ToneCurveFromIcc(row.profile);
    EXPECT_EQ(curve.kind, row.kind) << row.what << ": " << curve.description;
    EXPECT_EQ(curve.warning, "") << row.what;
    EXPECT_NE(curve.description.find("ICC profile"), std::string::npos) << row.what;
    if (row.curve) ExpectTable(curve, row.curve, row.tolerance, row.what);
  }
  // Unusable profiles (unreadable, cut short, without curves): sRGB, saying why.
  for (const std::string& bad :
       {std::string(200, 'x'), test::CurvesIccProfile({2.2, 2.2, 2.2}).substr(0, 100),
        test::IccProfile()}) {
    const ToneCurve curve = ToneCurveFromIcc(bad);
    EXPECT_EQ(curve.kind, Kind::kSrgb);
    EXPECT_NE(curve.warning.find("ICC profile"), std::string::npos) << curve.warning;
  }
}

TEST(ToneCurve, ReadsPngChunksInTheirOrderOfPrecedence) {
  const std::string gamma22 = BigEndian(45455), srgb(1, '\0');
  auto cicp = [](int transfer) { return std::string{1, char(transfer), 0, 1}; };
  struct Row {
    PngLightChunks chunks;  // gAMA, sRGB, cICP
    Kind kind;
    Curve curve;  // null: no table is checked
    bool warns;
  };
  const Row rows[] = {
      {{gamma22, "", ""}, Kind::kTable, Power(1 / 0.45455), false},
      {{BigEndian(55556), "", ""}, Kind::kTable, Power(1.8), false},
      {{BigEndian(100000), "", ""}, Kind::kLinear, nullptr, false},
      {{gamma22, srgb, ""}, Kind::kSrgb, nullptr, false},
      {{gamma22, srgb, cicp(8)}, Kind::kLinear, nullptr, false},
      {{"", "", cicp(13)}, Kind::kSrgb, nullptr, false},
      {{"", "", cicp(1)},
       Kind::kTable,
       [](double e) { return e < 0.081 ? e / 4.5 : std::pow((e + 0.099) / 1.099, 1 / 0.45); },
       false},
      {{gamma22, "", cicp(99)}, Kind::kTable, Power(1 / 0.45455), false},  // unknown: passed over
      {{"", "", cicp(99)}, Kind::kSrgb, nullptr, true},
      {{BigEndian(0), "", ""}, Kind::kSrgb, nullptr, true},
      {{}, Kind::kSrgb, nullptr, false},
  };
  for (const Row& row : rows) {
    const std::string what = "row " + std::to_string(&row - rows);
    const ToneCurve curve = ToneCurveFromPngChunks(row.chunks);
    EXPECT_EQ(curve.kind, row.kind) << what << ": " << curve.description;
    EXPECT_EQ(!curve.warning.empty(), row.warns) << what << ": " << curve.warning;
    if (row.curve) ExpectTable(curve, row.curve, 1e-5, what);
  }
}

TEST(ToneCurve, ChoosesByWhatTheFileSays) {
  const std::string gamma18 = test::CurvesIccProfile({1.8, 1.8, 1.8});
  const PngLightChunks gama{BigEndian(45455), "", ""};
  const std::string junk(200, 'x');
  struct Row {
    SampleDepth depth;
    std::string icc;
    PngLightChunks png;
    Kind kind;
    std::string said;  // part of the description
    std::string warned;
  };
  const Row rows[] = {
      {SampleDepth::kFloat, gamma18, gama, Kind::kLinear, "floating-point", ""},
      {SampleDepth::k8, gamma18, gama, Kind::kTable, "gamma 1.8 (the ICC profile's curve)", ""},
      {SampleDepth::k16, "", gama, Kind::kTable, "gamma 2.2 (the PNG gAMA chunk)", ""},
      {SampleDepth::k16, "", {}, Kind::kSrgb, "sRGB (the file does not say)", ""},
      {SampleDepth::k8, junk, gama, Kind::kTable, "gAMA", "cannot be read; taken as gamma 2.2"},
      {SampleDepth::k8, junk, {}, Kind::kSrgb, "sRGB", "cannot be read; taken as sRGB"},
  };
  for (const Row& row : rows) {
    LoadedImage image;
    image.depth = row.depth;
    image.iccProfile = row.icc;
    image.pngLight = row.png;
    const ToneCurve curve = ImageToneCurve(image);
    EXPECT_EQ(curve.kind, row.kind) << row.said;
    EXPECT_NE(curve.description.find(row.said), std::string::npos) << curve.description;
    if (row.warned.empty())
      EXPECT_EQ(curve.warning, "") << row.said;
    else
      EXPECT_NE(curve.warning.find(row.warned), std::string::npos) << curve.warning;
  }
  // Onto the options: a table as the table, sRGB and linear as the enumeration.
  DeconvolveOptions options;
  options.colorspace = Colorspace::kSrgb;
  LoadedImage image;
  image.pngLight = gama;
  ApplyToneCurve(ImageToneCurve(image), options);
  EXPECT_EQ(options.toneCurve.size(), size_t(kToneCurveSize));
  ApplyToneCurve(ChosenToneCurve(Colorspace::kLinear, "--colorspace"), options);
  EXPECT_TRUE(options.toneCurve.empty());
  EXPECT_EQ(options.colorspace, Colorspace::kLinear);
}

TEST(ToneCurve, PngChunksComeBackFromAWrittenFile) {
  test::TempDir dir;
  const std::string path = (dir.path() / "g.png").string();
  const PngLightChunks chunks{BigEndian(45455), std::string(1, '\1'), std::string{9, 16, 0, 1}};
  LoadedImage image;
  image.width = 8;
  image.height = 4;
  image.colourChannels = 1;
  image.planes.assign(32, 0.5);
  for (SampleDepth depth : {SampleDepth::k8, SampleDepth::k16}) {
    image.pngLight = chunks;
    WriteImageFile(path, image, depth, 95);
    const LoadedImage read = ReadImageFile(path);
    EXPECT_EQ(read.pngLight.gama, chunks.gama);
    EXPECT_EQ(read.pngLight.srgb, chunks.srgb);
    EXPECT_EQ(read.pngLight.cicp, chunks.cicp);
    // Written once each, by us: the encoder adds none of its own.
    const std::string bytes = test::ReadFileBytes(path);
    for (const char* type : {"gAMA", "sRGB", "cICP"})
      EXPECT_EQ(bytes.find(type), bytes.rfind(type)) << type;
  }
  image.pngLight = {};
  WriteImageFile(path, image, SampleDepth::k8, 95);
  const LoadedImage plain = ReadImageFile(path);
  EXPECT_TRUE(plain.pngLight.gama.empty() && plain.pngLight.srgb.empty());
}

}  // namespace
}  // namespace marlith
