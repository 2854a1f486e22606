#include "image/kernel_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>

#include "image/image_io.h"
#include "marlith/error.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

using test::TempDir;

// An .npy file of the given format version: header padded to a multiple of 64 bytes, data.
std::string Npy(const std::string& descr, bool fortran, const std::string& shape,
                const std::string& data, int major = 1) {
  std::string header = "{'descr': '" + descr +
                       "', 'fortran_order': " + (fortran ? "True" : "False") +
                       ", 'shape': " + shape + ", }";
  const size_t prefix = major == 1 ? 10 : 12;
  header.append(63 - (prefix + header.size()) % 64, ' ') += '\n';
  std::string out = "\x93NUMPY";
  out += static_cast<char>(major);
  out += '\0';
  for (size_t i = 0; i < prefix - 8; ++i) out += static_cast<char>(header.size() >> (8 * i));
  return out + header + data;
}

// The values' bytes in the machine's (little-endian) order, or reversed.
template <typename T>
std::string Bytes(std::initializer_list<T> values, bool bigEndian = false) {
  std::string out;
  for (T v : values) {
    const std::string one(reinterpret_cast<const char*>(&v), sizeof v);
    out += bigEndian ? std::string(one.rbegin(), one.rend()) : one;
  }
  return out;
}

LoadedImage Grey(int w, int h, double level) {
  LoadedImage image;
  std::tie(image.width, image.height, image.colourChannels) = std::tuple(w, h, 1);
  image.planes.assign(size_t(w) * h, level);
  return image;
}

TEST(KernelFile, ReadsTextCsvAndNpyMatricesRowByRow) {
  TempDir dir;
  const std::pair<std::string, std::string> files[] = {
      {"k.txt", "# a comment\n0 1 2  # trailing\n\n3\t4 5\n"},
      {"k.CSV", "\xEF\xBB\xBF\x30,1,2\r\n3;4;+5\r\n"},  // a byte order mark first
      {"f8.npy", Npy("<f8", false, "(2, 3)", Bytes<double>({0, 1, 2, 3, 4, 5}))},
      {"i4.npy", Npy("<i4", true, "(2, 3)", Bytes<int32_t>({0, 3, 1, 4, 2, 5}))},
      {"f4.npy", Npy(">f4", false, "(2,3)", Bytes<float>({0, 1, 2, 3, 4, 5}, true), 2)},
      {"u1.npy", Npy("|u1", false, "(2, 3)", Bytes<uint8_t>({0, 1, 2, 3, 4, 5}))},
      {"i8.npy", Npy(">i8", true, "(2L, 3L)", Bytes<int64_t>({0, 3, 1, 4, 2, 5}, true), 3)},
  };
  for (const auto& [name, bytes] : files) {
    test::WriteFileBytes(dir / name, bytes);
    const KernelFile kernel = ReadKernelFile(dir / name);
    EXPECT_EQ(kernel.width, 3) << name;
    EXPECT_EQ(kernel.height, 2) << name;
    EXPECT_EQ(kernel.values, (std::vector<double>{0, 1, 2, 3, 4, 5})) << name;
    EXPECT_TRUE(kernel.warnings.empty()) << name;
  }
}

TEST(KernelFile, ReadsImagesAsLuminanceAndSubtractsAFlatBackground) {
  TempDir dir;
  LoadedImage green = Grey(7, 7, 0.0);
  green.colourChannels = 3;
  green.planes.resize(3 * 49, 0.0);
  for (int x = 1; x < 6; ++x) green.planes[49 + 3 * 7 + x] = 1.0;  // green plane, row 3
  LoadedImage background = Grey(9, 9, 0.2);
  for (int x = 3; x < 6; ++x) background.planes[4 * 9 + x] = 1.0;
  LoadedImage gauss = Grey(5, 5, 0.0);  // tails reach the border but are no background
  for (int i = 0; i < 25; ++i)
    gauss.planes[i] = std::exp(-((i % 5 - 2) * (i % 5 - 2) + (i / 5 - 2) * (i / 5 - 2)) / 2.0);
  WriteImageFile(dir / "green.png", green, SampleDepth::k8, 90);
  WriteImageFile(dir / "background.png", background, SampleDepth::k8, 90);
  WriteImageFile(dir / "gauss.png", gauss, SampleDepth::k16, 90);

  const KernelFile line = ReadKernelFile(dir / "green.png");
  const double on = line.values[3 * 7 + 1];
  EXPECT_NEAR(on, 0.7152, 0.002);  // Rec. 709 luminance of full green
  for (int i = 0; i < 49; ++i)
    EXPECT_EQ(line.values[i], i / 7 == 3 && i % 7 >= 1 && i % 7 < 6 ? on : 0.0) << i;
  EXPECT_TRUE(line.warnings.empty());

  const KernelFile stroke = ReadKernelFile(dir / "background.png");
  ASSERT_EQ(stroke.warnings.size(), 1u);
  EXPECT_NE(stroke.warnings[0].find("background"), std::string::npos) << stroke.warnings[0];
  for (int i = 0; i < 81; ++i) {
    EXPECT_NEAR(stroke.values[i], i / 9 == 4 && i % 9 >= 3 && i % 9 < 6 ? 0.8 : 0.0, 1e-9) << i;
  }

  const KernelFile kept = ReadKernelFile(dir / "gauss.png");
  EXPECT_TRUE(kept.warnings.empty());
  for (int i = 0; i < 25; ++i) EXPECT_NEAR(kept.values[i], gauss.planes[i], 1.0 / 65535) << i;
}

TEST(KernelFile, RefusesUnusableKernelsSayingWhy) {
  TempDir dir;
  LoadedImage inverted = Grey(9, 9, 1.0);
  for (int x = 2; x < 7; ++x) inverted.planes[4 * 9 + x] = 0.0;
  WriteImageFile(dir / "inverted.png", inverted, SampleDepth::k8, 90);
  WriteImageFile(dir / "black.png", Grey(3, 3, 0.0), SampleDepth::k8, 90);
  struct Case {
    std::string name, bytes, expected;  // no bytes: the file is written above, or missing
  };
  const Case cases[] = {
      {"inverted.png", "", "looks inverted"},
      {"black.png", "", "sum to 0"},
      {"ragged.txt", "1 2 3\n4 5\n", "line 2 has 2 values but line 1 has 3"},
      {"nan.csv", "1,nan\n1,1\n", "x 1, y 0 is NaN"},
      {"neg.txt", "1 1\n1 -0.5\n", "x 1, y 1 is negative (-0.5, below 5 %"},
      {"inf.dat", "inf 1\n", "x 0, y 0 is infinite"},
      {"word.asc", "1 two\n", "'two' is not a number"},
      // A binary file: its first "token" shown cut, never up to a NUL or for kilobytes.
      {"binary.txt",
       "\x7f"
       "ELF\x02\x01" +
           std::string(9, '\0') + std::string(5000, 'A'),
       "'\x7f"
       "ELF\x02\x01...' is not a number"},
      {"long.txt", std::string(5000, 'e'), "'" + std::string(40, 'e') + "...' is not"},
      {"empty.txt", "# nothing\n", "no values"},
      {"zero.txt", "0 0\n0 0\n", "sum to 0"},
      {"3d.npy", Npy("<f8", false, "(1, 2, 3)", std::string(48, '\0')), "3 dimensions"},
      {"c16.npy", Npy("<c16", false, "(1, 1)", std::string(16, '\0')), "dtype '<c16'"},
      {"cut.npy", Npy("<f8", false, "(2, 3)", std::string(40, '\0')), "cut short"},
      {"huge.npy", Npy("|u1", false, "(268435456, 268435456)", "\x01"), "larger than"},
      {"wide.npy", Npy("|u1", false, "(99999999999, 1)", "\x01"), "malformed"},
      {"header.npy", std::string("\x93NUMPY\x01\x00\xff\xff{", 11), "cut short"},
      {"missing.txt", "", "No such file"},
  };
  for (const auto& [name, bytes, expected] : cases) {
    if (!bytes.empty()) test::WriteFileBytes(dir / name, bytes);
    const auto path = dir / name;  // clang 14 cannot capture a structured binding
    test::ExpectRefused([&] { ReadKernelFile(path); }, name, expected);
  }
}

TEST(KernelFile, ReadsEachTextDialectOrRefusesAnAmbiguousLine) {
  struct Case {
    const char* text;
    std::vector<double> values;  // empty: refused with why
    const char* why;
  };
  const Case cases[] = {
      {"0.25 0.5\n1 2\n", {0.25, 0.5, 1, 2}, ""},
      {"0.25,0.5\n1,2\n", {0.25, 0.5, 1, 2}, ""},
      {"0.25;0.5\n1;2\n", {0.25, 0.5, 1, 2}, ""},
      {"0,25;0,5\n1;2\n", {0.25, 0.5, 1, 2}, ""},  // decimal commas between semicolons
      {"0,25 ; 0,5\r\n1e0;2\n", {0.25, 0.5, 1, 2}, ""},
      {"1;2\n0,1,2;3\n", {}, "line 2: '0,1,2' is ambiguous"},
      {"1;2\n0.5,1;3\n", {}, "line 2: '0.5,1' is ambiguous"},
      {"0,5;1\n2,5\n", {}, "line 2 has 1 values but line 1 has 2"},
  };
  for (const Case& c : cases) {
    if (c.values.empty()) {
      test::ExpectRefused([&] { ParseKernelText(c.text, "k.csv"); }, "k.csv", c.why);
      continue;
    }
    const KernelFile k = ParseKernelText(c.text, "k.csv");
    EXPECT_EQ(k.width, 2) << c.text;
    EXPECT_EQ(k.values, c.values) << c.text;
  }
}

TEST(KernelFile, ZeroesSmallNegativesAndWarnsOfAnOffCentreKernel) {
  const KernelFile k = ParseKernelText("-0.04 0 0\n0 1 0\n0 0 -0.01\n", "psf.txt");
  EXPECT_EQ(k.values, (std::vector<double>{0, 0, 0, 0, 1, 0, 0, 0, 0}));
  ASSERT_EQ(k.warnings.size(), 1u);
  EXPECT_NE(k.warnings[0].find("2 negative kernel values (the lowest -0.04, 4 %"),
            std::string::npos)
      << k.warnings[0];
  test::ExpectRefused([] { ParseKernelText("-0.06 1\n", "psf.txt"); }, "psf.txt",
                      "x 0, y 0 is negative (-0.06, below 5 % of the peak 1)");
  // The centroid 3 samples right of the centre of a 9-wide row, 1 below on a 3-high one.
  KernelFile row{std::vector<double>(9, 0.0), 9, 1, {}};
  row.values[7] = 1.0;
  EXPECT_NE(OffCentreWarning(row, "k.txt").find("3.0 samples right and 0.0 down"),
            std::string::npos);
  EXPECT_NE(OffCentreWarning(row, "k.txt").find("--kernel-origin support"), std::string::npos);
  KernelFile near{{0, 1, 0, 0, 1, 0, 0, 1, 1}, 3, 3, {}};  // 0.25 right, 0.25 down
  EXPECT_EQ(OffCentreWarning(near, "k.txt"), "");
}

TEST(KernelFile, WritesKernelsThatReadBack) {
  TempDir dir;
  const std::vector<double> values{0.0, 0.125, 0.0, 0.125, 0.5, 0.125, 0.0, 0.125, 0.0};
  for (const char* name : {"k.npy", "k.tif", "k.PNG"}) {
    WriteKernelFile(dir / name, values, 3, 3);
    const KernelFile back = ReadKernelFile(dir / name);
    ASSERT_EQ(back.width * 10 + back.height, 33) << name;
    // PNG keeps 16 bits of the kernel scaled to its peak.
    const double scale = back.values[4] / 0.5;
    for (size_t i = 0; i < values.size(); ++i)
      EXPECT_NEAR(back.values[i], values[i] * scale, 2e-5) << name << " " << i;
  }
  test::ExpectRefused([&] { WriteKernelFile(dir / "k.jpg", values, 3, 3); }, "k.jpg", ".npy");
}

}  // namespace
}  // namespace marlith
