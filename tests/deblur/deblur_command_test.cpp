// marlith-deblur end to end: the real executable on image and kernel files made here. What it
// writes is read back with the image layer (whose own tests hold it to the file formats) and
// compared with the same restoration through the API.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "image/image_io.h"
#include "image/kernel_file.h"
#include "image/tone_curve.h"
#include "marlith/deconvolve.hpp"
#include "support/test_support.h"

namespace marlith::test {
namespace {

namespace fs = std::filesystem;

ProcessResult Deblur(const std::vector<std::string>& args) { return RunProcess(DeblurExe(), args); }
bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A fresh folder made the working directory, holding as k.png a 9 x 5 kernel whose motion blur
// lies off its centre (so that its origin matters, and a run warns of it); the names below are
// files in it.
struct Files {
  TempDir dir;
  const fs::path previous = fs::current_path();
  Files() {
    fs::current_path(dir.path());
    std::vector<double> k(45, 0.0);
    for (int x = 0; x < 6; ++x) k[x / 2 * 9 + x] = 0.5 + x / 16.0;
    LoadedImage kernel;
    std::tie(kernel.width, kernel.height, kernel.colourChannels, kernel.planes) =
        std::tuple(9, 5, 1, k);
    WriteImageFile("k.png", kernel, SampleDepth::k8, 95);
  }
  ~Files() { fs::current_path(previous); }
};

// Writes an image (64 x 48 unless said) of 1 to 4 channels (grey, grey and alpha, RGB, RGBA):
// random colour samples in [0.2, 0.8], alpha in [0, 1].
void WriteImage(const std::string& name, int channels, SampleDepth depth,
                const std::string& icc = "", const std::string& exif = "", int w = 64, int h = 48) {
  const int colours = channels > 2 ? 3 : 1;
  const bool alpha = channels % 2 == 0;
  std::vector<double> planes = RandomValues(size_t(w) * h * colours, 3, 0.2, 0.8);
  const std::vector<double> a = RandomValues(size_t(w) * h * alpha, 4, 0.0, 1.0);
  planes.insert(planes.end(), a.begin(), a.end());
  LoadedImage image;
  std::tie(image.width, image.height, image.colourChannels, image.hasAlpha, image.planes) =
      std::tuple(w, h, colours, alpha, planes);
  std::tie(image.depth, image.iccProfile, image.exif) = std::tuple(depth, icc, exif);
  WriteImageFile(name, image, depth, 100);
}

// A PNG's bit depth and colour type (0 grey, 2 RGB, 4 grey and alpha, 6 RGBA) as its bytes.
std::string PngHeader(int bits, int colourType) { return {char(bits), char(colourType)}; }

TEST(DeblurCommand, AnswersHelpAndVersionAndRefusesBeforeTheRun) {
  Files f;
  WriteImage("in.png", 3, SampleDepth::k8);
  struct Row {
    std::vector<std::string> args;
    int exit;
    std::string said;  // part of standard output (exit 0) or error
  };
  const std::vector<Row> rows = {
      {{"--help"}, 0, "Usage: marlith-deblur -k KERNEL"},
      {{"--version"}, 0, "marlith-deblur 0."},
      {{}, 2, "Try 'marlith-deblur --help'"},
      {{"-k", "k.png", "--noise", "0,1", "in.png"}, 2, "--noise: '0,1'"},
      {{"-k", "k.png", "--noise", "1%", "in.png"}, 2, "--noise: '1%'"},
      {{"-k", "k.png", "--threads", "smooth", "in.png"}, 2, "--threads: 'smooth'"},
      {{"-k", "k.png", "--boundary", "1", "in.png"}, 2, "--boundary: '1' is not one of smooth"},
      {{"-k", "k.png", "--colorspace", "sRGB", "in.png"}, 2, "--colorspace: 'sRGB' is not one of"},
      {{"-k", "k.png", "--bogus", "in.png"}, 2, "unknown option --bogus"},
      {{"-k", "k.png", "--bogus", "-y", "in.png"}, 2, "unknown options --bogus -y"},
      {{"-k", "k.png", "--output=", "in.png"}, 2, "--output: the value after '=' is empty"},
      {{"-k", "k.png", "--noise", "\x1b[2J", "in.png"}, 2, "--noise: '\\x1b[2J' is not"},
      {{"-k", "esc.txt", "in.png"}, 1, "esc.txt: line 1: '\\x1b[31mred\\x07' is not"},
      {{"-k", "k.png", "in.png", "--jpeg-quality"}, 2, "--jpeg-quality"},
      {{"-k", "k.png", "-o", "in.png", "in.png"}, 2, "over the image"},
      {{"-k", "k.png", "-o", "k.png", "in.png"}, 2, "over the kernel"},
      {{"-k", "k.png", "-o", "o.png", "in.png", "in.png"}, 2, "not a folder"},
      {{"-k", "k.png", "-o", "o.jpg", "-d", "16", "in.png"}, 2, "--depth"},
      {{"-k", "k.png", "-o", "missing/o.png", "in.png"}, 1, "does not exist"},
      {{"-k", "k.png", "-o", "o.xyz", "in.png"}, 1, "o.xyz"},
      {{"-k", "k.png", "-o", "o.png", "none.png"}, 1, "none.png"},
      {{"-k", "none.png", "-o", "o.png", "in.png"}, 1, "none.png"},
      {{"-k", "in.png", "-o", "o.png", "k.png"}, 1, "swapped"},
      {{"-k", "k.png", "-o", "o.pgm", "in.png"}, 1, "grey images only"},
  };
  WriteFileBytes("esc.txt", "0.5 \x1b[31mred\x07 0.5\n");  // colours the terminal, rings
  const std::string before = ReadFileBytes("in.png"), kernelBefore = ReadFileBytes("k.png");
  for (const Row& row : rows) {
    std::vector<std::string> args = row.args;
    if (!args.empty() && args[0] == "-k") args.insert(args.begin(), "--progress");
    const ProcessResult r = Deblur(args);
    const std::string what = args.empty() ? "no arguments" : args[args.size() / 2];
    EXPECT_EQ(r.exitCode, row.exit) << what << ": " << r.err;
    EXPECT_TRUE(Has(row.exit == 0 ? r.out : r.err, row.said)) << what << ": " << r.out << r.err;
    // Refused before the run: no phase of it shown; no control character reaches the terminal.
    EXPECT_FALSE(Has(r.err, "deconvolution")) << what << ": " << r.err;
    EXPECT_FALSE(Has(r.err, "\x1b")) << what << ": " << r.err;
  }
  EXPECT_FALSE(fs::exists("o.png") || fs::exists("o.pgm"));
  EXPECT_EQ(ReadFileBytes("in.png"), before);
  EXPECT_EQ(ReadFileBytes("k.png"), kernelBefore);
}

TEST(DeblurCommand, RestoresEachKindOfImageAsTheApiDoesKeepingWhatTheFileHolds) {
  Files f;
  const KernelFile k = ReadKernelFile("k.png");
  const std::string icc = CurvesIccProfile({2.2, 2.2, 2.2}), exif = ExifBlock(1);
  struct Row {
    std::string in;
    int channels;  // 1 grey, 2 grey and alpha, 3 RGB, 4 RGBA
    SampleDepth depth;
    std::vector<std::string> args;  // before the kernel, the output and the image
    std::string written;
    SampleDepth writtenDepth;
    std::string said;  // parts of standard error, separated by ';'; none: it must be empty
  };
  const SampleDepth k8 = SampleDepth::k8, k16 = SampleDepth::k16, kFloat = SampleDepth::kFloat;
  const Row rows[] = {
      {"g16.png",
       1,
       k16,
       {"--noise", "0.02"},
       "g.png",
       k16,
       "centroid lies 1.2 samples left and 0.9 up"},
      {"g16.png",
       1,
       k16,
       {},
       "g.jpg",
       k8,
       "JPEG cannot hold 16-bit;centroid lies 1.2 samples left and 0.9 up"},
      {"f.tif", 1, kFloat, {"--quiet"}, "fq.png", k16, ""},
      {"f.tif",
       1,
       kFloat,
       {"--progress"},
       "of.tif",
       kFloat,
       "deconvolution;100 %;writing;centroid lies 1.2 samples left and 0.9 up"},
      {"rgba.png",
       4,
       k8,
       {"-v"},
       "o.png",
       k8,
       "64 x 48, colour and alpha;tone curve like gamma 2.2 (the ICC profile's;noise level;s in "
       "all"},
      {"ga.png", 2, k8, {"-d", "16"}, "ga16.png", k16, "centroid lies 1.2 samples left and 0.9 up"},
      {"in.jpg", 3, k8, {}, "o.jpg", k8, "centroid lies 1.2 samples left and 0.9 up"},
  };
  for (const Row& row : rows) {
    const int colours = row.channels > 2 ? 3 : 1;
    WriteImage(row.in, row.channels, row.depth, icc, exif);
    std::vector<std::string> args = row.args;
    args.insert(args.end(), {"-k", "k.png", "-o", row.written, row.in});
    const ProcessResult r = Deblur(args);
    ASSERT_EQ(r.exitCode, 0) << row.written << ": " << r.err;
    EXPECT_EQ(r.err.empty(), row.said.empty()) << row.written << ": " << r.err;
    std::istringstream said(row.said);
    for (std::string part; std::getline(said, part, ';');)
      EXPECT_TRUE(Has(r.err, part)) << row.written << ": " << r.err;

    // The same restoration through the API.
    const LoadedImage in = ReadImageFile(row.in);
    std::vector<double> reference = in.planes;
    DeconvolveOptions options;
    if (!row.args.empty() && row.args[0] == "--noise") options.noise = std::stod(row.args[1]);
    ApplyToneCurve(ImageToneCurve(in), options);
    Deconvolve(ConstImageView::Planar(in.planes.data(), 64, 48, colours),
               {k.values, k.width, k.height}, ImageView::Planar(reference.data(), 64, 48, colours),
               options);
    const LoadedImage out = ReadImageFile(row.written);
    EXPECT_EQ(out.depth, row.writtenDepth) << row.written;
    EXPECT_EQ(out.iccProfile, icc) << row.written;
    EXPECT_EQ(out.exif, exif) << row.written;
    if (row.written.ends_with(".png")) {
      const int colourType = (colours == 3 ? 2 : 0) + (row.channels % 2 == 0 ? 4 : 0);
      EXPECT_EQ(ReadFileBytes(row.written).substr(24, 2),
                PngHeader(row.writtenDepth == k16 ? 16 : 8, colourType));
    }
    if (row.written.ends_with(".jpg")) continue;  // lossy
    ASSERT_EQ(out.planes.size(), reference.size()) << row.written;
    // Integer samples: the result rounded to the nearest step (alpha copied as it was read);
    // floating point: float32 rounding, far below a 16-bit step.
    const double step = row.writtenDepth == k8 ? 1 / 255.0 : 1 / 65535.0;
    for (size_t i = 0; i < out.planes.size(); ++i) {
      const double expected =
          row.writtenDepth == kFloat ? reference[i] : std::clamp(reference[i], 0.0, 1.0);
      ASSERT_NEAR(out.planes[i], expected, row.writtenDepth == kFloat ? 1e-6 : step / 2 + 1e-9)
          << row.written << " sample " << i;
    }
  }
}

TEST(DeblurCommand, RestoresABatchWhereOneImageFails) {
  Files f;
  WriteImage("a.png", 3, SampleDepth::k8);
  WriteImage("b.jpg", 3, SampleDepth::k8);
  WriteFileBytes("broken.png", "\x89PNG\r\n\x1a\n not really");
  fs::create_directories("out/sub");
  const ProcessResult r = Deblur(
      {"-k", "k.png", "-o", "out/", "--jobs", "2", "-t", "2", "a.png", "broken.png", "b.jpg"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Has(r.err, "broken.png") && Has(r.err, "1 of 3")) << r.err;
  EXPECT_EQ(ReadFileBytes("out/a.png").substr(24, 2), PngHeader(8, 2));
  EXPECT_EQ(ReadFileBytes("out/b.jpg").substr(0, 2), "\xFF\xD8");
  EXPECT_FALSE(fs::exists("out/broken.png"));
  // Two images of one name would share a result: refused before anything runs.
  const ProcessResult twice = Deblur({"-k", "k.png", "-o", "out/sub", "a.png", "out/a.png"});
  EXPECT_EQ(twice.exitCode, 2);
  EXPECT_TRUE(Has(twice.err, "both")) << twice.err;
  // Without --output the result goes beside its image.
  EXPECT_EQ(Deblur({"-k", "k.png", "b.jpg"}).exitCode, 0);
  EXPECT_EQ(ReadFileBytes("b-deblurred.jpg").substr(0, 2), "\xFF\xD8");
}

TEST(DeblurCommand, ReRunsWithSkipExistingRestoreOnlyTheMissingResultsIntoAMadeFolder) {
  Files f;
  WriteImage("a.png", 1, SampleDepth::k8);
  WriteImage("b.png", 1, SampleDepth::k8);
  // The folder named with a final '/' is made; a result there already (an interrupted run's
  // finished one) is left alone, the missing one restored.
  ASSERT_EQ(Deblur({"-k", "k.png", "-o", "made/", "a.png"}).exitCode, 0);
  const std::string first = ReadFileBytes("made/a.png");
  WriteFileBytes("made/a.png", first + "x");  // marks it: a rewrite would drop the mark
  const ProcessResult r =
      Deblur({"-v", "--skip-existing", "-k", "k.png", "-o", "made/", "a.png", "b.png"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Has(r.err, "a.png: skipped, made/a.png exists")) << r.err;
  EXPECT_EQ(ReadFileBytes("made/a.png"), first + "x");
  EXPECT_EQ(ReadFileBytes("made/b.png").substr(24, 2), PngHeader(8, 0));
  // Every result there: nothing to do, success.
  EXPECT_EQ(Deblur({"--skip-existing", "-k", "k.png", "-o", "made/", "a.png", "b.png"}).exitCode,
            0);
}

TEST(DeblurCommand, StopsCleanlyOnInterrupt) {
  // An image large enough that the run still goes on when its first phase is reported, which
  // is when the shell sends SIGINT.
  Files f;
  WriteImage("big.png", 1, SampleDepth::k8, "", "", 1600, 1200);
  const ProcessResult r = RunProcess(
      "/bin/sh", {"-c",
                  "\"$0\" --progress -m exact -t 1 -k k.png -o o.png big.png 2>said & until grep "
                  "-qE 'margins|deconvolution' said; do sleep 0.01; done; kill -INT $!; wait $!",
                  DeblurExe()});
  const std::string said = ReadFileBytes("said");
  EXPECT_EQ(r.exitCode, 130) << said;
  EXPECT_TRUE(Has(said, "interrupted")) << said;
  // Nothing written, not even a temporary file: only big.png, k.png and said.
  EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), 3);
}

}  // namespace
}  // namespace marlith::test
