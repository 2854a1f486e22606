// What the executable does with bad input: one table row of the README per case.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

namespace fs = std::filesystem;
using synthesis::ImagePlanes;

const std::regex kTimeLine(R"(time cost : \d+\.\d{6}\n)");

class BadInput : public ::testing::Test {
 protected:
  TempDir dir;
  std::string in, kernel, out;
  std::string previous;  // what out.png held before each run

  void SetUp() override {
    in = dir / "in.png";
    kernel = dir / "k.png";
    out = dir / "out.png";
    ImagePlanes image{std::vector<double>(24 * 16, 0.3), 24, 16, 1};
    for (int y = 4; y < 12; ++y)
      for (int x = 6; x < 18; ++x) image.planes[y * 24 + x] = 0.7;
    synthesis::WriteImagePlanes(in, image);
    synthesis::WriteImagePlanes(kernel, {{0, 0.5, 0, 0.5, 1, 0.5, 0, 0.5, 0}, 3, 3, 1});
    // A previous result that a failed run must leave as it was.
    synthesis::WriteImagePlanes(out, {std::vector<double>(4, 0.5), 2, 2, 1});
    previous = ReadFileBytes(out);
  }

  ProcessResult Run(const std::string& input, const std::string& k, const std::string& o,
                    const std::string& boundary = "0", const std::string& noise = "1",
                    const std::string& weight = "1") {
    return RunProcess(MarlithExe(), {input, k, o, boundary, noise, weight});
  }

  // A refused run: exit -1, the given first line, the time line, out.png untouched.
  void ExpectRefused(const ProcessResult& r, const std::string& firstLineStart,
                     const std::string& why = "") {
    EXPECT_EQ(r.exitCode, 255) << r.out << r.err;
    const std::string first = r.out.substr(0, r.out.find('\n'));
    EXPECT_EQ(first.rfind(firstLineStart, 0), 0u) << r.out;
    if (!why.empty()) {
      EXPECT_NE(r.out.find(why), std::string::npos) << r.out;
    }
    EXPECT_TRUE(std::regex_match(r.out.substr(r.out.find('\n') + 1), kTimeLine)) << r.out;
    EXPECT_EQ(ReadFileBytes(out), previous);
  }
};

TEST_F(BadInput, FilesThatCannotBeDecodedAreNamedAndLeaveTheOutputAlone) {
  const std::string png = ReadFileBytes(in);
  synthesis::WriteImagePlanes(dir / "in.jpg", {std::vector<double>(64 * 48, 0.4), 64, 48, 1});
  const std::string jpg = ReadFileBytes(dir / "in.jpg");
  std::vector<std::string> bad = {dir / "missing.png", dir.path().string(), dir / "empty.png",
                                  dir / "noise.png"};
  WriteFileBytes(dir / "empty.png", "");
  std::string noise(2048, '\0');
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * 131 + 7);
  WriteFileBytes(dir / "noise.png", noise);
  for (size_t cut : {size_t{16}, png.size() / 2, png.size() - 12}) {
    bad.push_back(dir / ("cut" + std::to_string(cut) + ".png"));
    WriteFileBytes(bad.back(), png.substr(0, cut));
  }
  for (size_t cut : {size_t{100}, jpg.size() / 2, jpg.size() - 2}) {
    bad.push_back(dir / ("cut" + std::to_string(cut) + ".jpg"));
    WriteFileBytes(bad.back(), jpg.substr(0, cut));
  }
  for (const std::string& file : bad) {
    SCOPED_TRACE(file);
    const ProcessResult asInput = Run(file, kernel, out);
    ExpectRefused(asInput, "Cannot load image " + file);
    EXPECT_EQ(std::count(asInput.err.begin(), asInput.err.end(), '\n'), 1) << asInput.err;
    ExpectRefused(Run(in, file, out), "Cannot load image " + file);
  }
}

TEST_F(BadInput, AHeaderClaimingTenGigapixelsIsRefusedByThePixelLimit) {
  // Signature, IHDR of 100000 x 100000 RGB, no pixel data: decoders must not allocate for it.
  auto be32 = [](uint32_t v) {
    return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
  };
  const std::string ihdr = "IHDR" + be32(100000) + be32(100000) + std::string("\x08\x02\0\0\0", 5);
  // CRC of the chunk, computed here bit by bit (polynomial 0xEDB88320).
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char c : ihdr) {
    crc ^= c;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  WriteFileBytes(dir / "huge.png",
                 std::string("\x89PNG\r\n\x1a\n", 8) + be32(13) + ihdr + be32(~crc));
  const ProcessResult r = Run(dir / "huge.png", kernel, out);
  ExpectRefused(r, "Cannot load image " + (dir / "huge.png"));
}

TEST_F(BadInput, ImagesSmallerThanTheTrimmedKernelAreRefused) {
  for (auto [w, h] : {std::pair{1, 1}, std::pair{1, 9}, std::pair{9, 1}, std::pair{2, 2}}) {
    synthesis::WriteImagePlanes(dir / "tiny.png", {std::vector<double>(w * h, 0.5), w, h, 1});
    for (const char* boundary : {"0", "1"}) {
      SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + " boundary " + boundary);
      ExpectRefused(Run(dir / "tiny.png", kernel, out, boundary), "Cannot deblur",
                    "larger than the image");
    }
  }
  // A kernel image larger than the image whose support is small is fine ...
  std::vector<double> big(40 * 40, 0.0);
  big[20 * 40 + 20] = 1.0;
  big[20 * 40 + 21] = 0.5;
  synthesis::WriteImagePlanes(dir / "big.png", {big, 40, 40, 1});
  EXPECT_EQ(Run(in, dir / "big.png", out).exitCode, 0);
  // ... one whose support is larger is not.
  std::fill(big.begin(), big.end(), 0.2);
  synthesis::WriteImagePlanes(dir / "big.png", {big, 40, 40, 1});
  previous = ReadFileBytes(out);
  ExpectRefused(Run(in, dir / "big.png", out), "Cannot deblur", "larger than the image");
}

TEST_F(BadInput, BlackKernelsAreRefusedAndOneSampleOrAlphaKernelsWork) {
  synthesis::WriteImagePlanes(dir / "black.png", {std::vector<double>(25, 0.0), 5, 5, 1});
  ExpectRefused(Run(in, dir / "black.png", out), "Cannot deblur", "black");

  synthesis::WriteImagePlanes(dir / "one.png", {{0.8}, 1, 1, 1});
  const ProcessResult one = Run(in, dir / "one.png", out);
  EXPECT_EQ(one.exitCode, 0) << one.out;
  // A one-sample kernel blurs nothing: the result stays close to the input.
  const auto input = synthesis::ReadImagePlanes(in), result = synthesis::ReadImagePlanes(out);
  EXPECT_GT(synthesis::Psnr(result.planes, input.planes, 24, 16), 25.0);

  // Kernel with an alpha layer: its red levels are the kernel, alpha is ignored.
  ASSERT_EQ(std::system(("gm convert " + kernel + " -matte PNG32:" + (dir / "ka.png")).c_str()), 0);
  const ProcessResult alpha = Run(in, dir / "ka.png", dir / "alpha.png");
  EXPECT_EQ(alpha.exitCode, 0) << alpha.out;
  const ProcessResult plain = Run(in, kernel, dir / "plain.png");
  EXPECT_EQ(ReadFileBytes(dir / "alpha.png"), ReadFileBytes(dir / "plain.png"));
}

TEST_F(BadInput, NumbersReadAsTheirValueAndOnlyNonFiniteSettingsAreRefused) {
  // Not numbers read as 0; any non-zero boundary type selects smooth borders; negative and zero
  // noise mean noise-free; a huge noise leaves the image as it is.
  for (const auto& [boundary, noise, weight] :
       std::vector<std::tuple<std::string, std::string, std::string>>{{"x", "x", "x"},
                                                                      {"-3", "-1", "-5"},
                                                                      {"0", "0", "0"},
                                                                      {"1e308", "1e308", "1"},
                                                                      {"99999999999", "1", "1"},
                                                                      {"nan", "1", "1"}}) {
    SCOPED_TRACE(boundary + " " + noise + " " + weight);
    const ProcessResult r = Run(in, kernel, out, boundary, noise, weight);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(std::regex_match(r.out, kTimeLine)) << r.out;
  }
  previous = ReadFileBytes(out);
  for (const auto& [noise, weight, what] :
       std::vector<std::tuple<std::string, std::string, std::string>>{{"inf", "1", "noise"},
                                                                      {"nan", "1", "noise"},
                                                                      {"-inf", "1", "noise"},
                                                                      {"1", "inf", "weight"},
                                                                      {"1", "nan", "weight"},
                                                                      {"1", "1e308", "weight"}}) {
    SCOPED_TRACE(noise + " " + weight);
    ExpectRefused(Run(in, kernel, out, "0", noise, weight), "Cannot deblur", what);
  }
}

TEST_F(BadInput, UnwritableOutputsWarnOnStandardErrorAndKeepTheResult) {
  for (const std::string& target : {dir / "missing/out.png", dir / "out.tif", dir / "out.PNG"}) {
    SCOPED_TRACE(target);
    const ProcessResult r = Run(in, kernel, target);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(std::regex_match(r.out, kTimeLine)) << r.out;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(r.err.find(target), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(target));
  }
  // A read-only folder. Root writes anywhere, so as root the run drops to the nobody user.
  fs::create_directory(dir / "locked");
  WriteFileBytes(dir / "locked/out.png", previous);
  fs::permissions(dir.path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                  fs::perms::others_read | fs::perms::others_exec);
  fs::permissions(dir / "locked", fs::perms::owner_read | fs::perms::owner_exec |
                                      fs::perms::group_read | fs::perms::group_exec |
                                      fs::perms::others_read | fs::perms::others_exec);
  std::vector<std::string> args = {in, kernel, dir / "locked/out.png", "0", "1", "1"};
  ProcessResult r;
  if (geteuid() == 0) {
    args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", MarlithExe()});
    r = RunProcess("/usr/bin/setpriv", args);
  } else {
    r = RunProcess(MarlithExe(), args);
  }
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_NE(r.err.find("locked/out.png"), std::string::npos) << r.err;
  EXPECT_EQ(ReadFileBytes(dir / "locked/out.png"), previous);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "locked"), fs::directory_iterator{}), 1);
}

TEST_F(BadInput, TheOutputMayReplaceTheInput) {
  const std::string before = ReadFileBytes(in);
  const ProcessResult r = Run(in, kernel, in);
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  const std::string after = ReadFileBytes(in);
  EXPECT_NE(after, before);
  EXPECT_EQ(synthesis::ReadImagePlanes(in).width, 24);
}

}  // namespace
}  // namespace marlith::test
