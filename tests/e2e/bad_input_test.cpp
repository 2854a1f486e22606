// What the executable does with bad input: one data row per line of the README's table.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <sstream>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

namespace fs = std::filesystem;
using synthesis::ImagePlanes;

const std::regex kTimeLine(R"(time cost : \d+\.\d{6}\n)");

enum Outcome { kRefused, kWorks, kWarns };
class BadInput;

struct Row {
  const char* name;               // the README line in a few words
  std::vector<std::string> runs;  // argument lines; "@name" is a file of the test's folder
  Outcome outcome;
  std::string says = "";  // refused: the first line's start ("%" the run's odd file) and a part
  std::string why = "";
  std::function<void(BadInput&)> check = nullptr;  // what the line promises beyond the outcome
};

class BadInput : public ::testing::TestWithParam<Row> {
 public:
  TempDir dir;
  std::string previous, input;  // what out.png and in.png held before the runs

  void SetUp() override {
    ImagePlanes image{std::vector<double>(24 * 16, 0.3), 24, 16, 1};
    for (int y = 4; y < 12; ++y)
      for (int x = 6; x < 18; ++x) image.planes[y * 24 + x] = 0.7;
    Write("in.png", image);
    Write("k.png", {{0, 0.5, 0, 0.5, 1, 0.5, 0, 0.5, 0}, 3, 3, 1});
    Write("out.png", {std::vector<double>(4, 0.5), 2, 2, 1});  // a previous result
    previous = ReadFileBytes(dir / "out.png");
    input = ReadFileBytes(dir / "in.png");
    // Files that cannot be decoded: empty, random bytes, PNG and JPEG cut short.
    Write("in.jpg", {std::vector<double>(64 * 48, 0.4), 64, 48, 1});
    const std::string png = ReadFileBytes(dir / "in.png"), jpg = ReadFileBytes(dir / "in.jpg");
    WriteFileBytes(dir / "empty.png", "");
    std::string noise(2048, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * 131 + 7);
    WriteFileBytes(dir / "noise.png", noise);
    for (auto [name, bytes, cut] : {std::tuple{"cut1.png", png, 16ul},
                                    {"cut2.png", png, png.size() / 2},
                                    {"cut3.png", png, png.size() - 12},
                                    {"cut1.jpg", jpg, 100ul},
                                    {"cut2.jpg", jpg, jpg.size() / 2},
                                    {"cut3.jpg", jpg, jpg.size() - 2}})
      WriteFileBytes(dir / name, bytes.substr(0, cut));
    // A PNG header claiming 100000 x 100000 RGB and no pixel data, its CRC computed bit by bit.
    auto be32 = [](uint32_t v) {
      return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    };
    const std::string ihdr =
        "IHDR" + be32(100000) + be32(100000) + std::string("\x08\x02\0\0\0", 5);
    uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char c : ihdr) {
      crc ^= c;
      for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    WriteFileBytes(dir / "huge.png",
                   std::string("\x89PNG\r\n\x1a\n", 8) + be32(13) + ihdr + be32(~crc));
    for (auto [w, h] : {std::pair{1, 1}, std::pair{1, 9}, std::pair{9, 1}, std::pair{2, 2}})
      Write("tiny" + std::to_string(w) + "x" + std::to_string(h) + ".png",
            {std::vector<double>(w * h, 0.5), w, h, 1});
    std::vector<double> big(40 * 40, 0.0);  // larger than the image, small support ...
    big[20 * 40 + 20] = 1.0;
    big[20 * 40 + 21] = 0.5;
    Write("big.png", {big, 40, 40, 1});
    Write("wide.png", {std::vector<double>(40 * 40, 0.2), 40, 40, 1});  // ... and large support
    Write("black.png", {std::vector<double>(25, 0.0), 5, 5, 1});
    Write("one.png", {{0.8}, 1, 1, 1});
    ASSERT_EQ(
        std::system(("gm convert " + dir / "k.png" + " -matte PNG32:" + dir / "ka.png").c_str()),
        0);
  }
  void Write(const std::string& name, const ImagePlanes& image) {
    synthesis::WriteImagePlanes(dir / name, image);
  }
  std::string Bytes(const std::string& name) { return ReadFileBytes(dir / name); }
  ImagePlanes Planes(const std::string& name) { return synthesis::ReadImagePlanes(dir / name); }

  ProcessResult Run(const std::string& line, std::vector<std::string>& args) {
    std::istringstream words(line);
    for (std::string w; words >> w;) args.push_back(w[0] == '@' ? dir / w.substr(1) : w);
    if (args.size() == 3) args.push_back("0");  // periodic unless the line says otherwise
    while (args.size() < 6) args.push_back("1");
    return RunProcess(MarlithExe(), args);
  }
};

TEST_P(BadInput, DoesWhatTheReadmeSays) {
  const Row& row = GetParam();
  for (const std::string& line : row.runs) {
    SCOPED_TRACE(line);
    std::vector<std::string> args;
    const ProcessResult r = Run(line, args);
    const std::string first = r.out.substr(0, r.out.find('\n'));
    switch (row.outcome) {
      case kRefused: {  // one line saying why, the time line, exit -1, out.png as it was
        std::string says = row.says;
        if (says.find('%') != std::string::npos)
          says.replace(says.find('%'), 1, args[0] != dir / "in.png" ? args[0] : args[1]);
        EXPECT_EQ(r.exitCode, 255) << r.out << r.err;
        EXPECT_EQ(first.rfind(says, 0), 0u) << r.out;
        EXPECT_NE(first.find(row.why), std::string::npos) << r.out;
        EXPECT_TRUE(std::regex_match(r.out.substr(first.size() + 1), kTimeLine)) << r.out;
        EXPECT_EQ(Bytes("out.png"), previous);
        if (says.rfind("Cannot load", 0) == 0) {
          EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);
        }
        break;
      }
      case kWorks:  // only the time line, exit 0
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_TRUE(std::regex_match(r.out, kTimeLine)) << r.out;
        break;
      case kWarns:  // completes with 0, writes nothing, one warning line naming the file
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_TRUE(std::regex_match(r.out, kTimeLine)) << r.out;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(args[2]), std::string::npos) << r.err;
        EXPECT_FALSE(fs::exists(args[2]));
    }
  }
  if (row.check) row.check(*this);
}

// A read-only folder: root writes anywhere, so as root the run drops to the nobody user.
void ReadOnlyFolderKeepsItsFile(const TempDir& dir, const std::string& previous) {
  fs::create_directory(dir / "locked");
  WriteFileBytes(dir / "locked/out.png", previous);
  fs::permissions(dir.path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                  fs::perms::others_read | fs::perms::others_exec);
  fs::permissions(dir / "locked", fs::perms::owner_read | fs::perms::owner_exec |
                                      fs::perms::group_read | fs::perms::group_exec |
                                      fs::perms::others_read | fs::perms::others_exec);
  std::vector<std::string> args = {
      dir / "in.png", dir / "k.png", dir / "locked/out.png", "0", "1", "1"};
  if (geteuid() == 0)
    args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", MarlithExe()});
  const ProcessResult r = RunProcess(geteuid() == 0 ? "/usr/bin/setpriv" : MarlithExe(), args);
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_NE(r.err.find("locked/out.png"), std::string::npos) << r.err;
  EXPECT_EQ(ReadFileBytes(dir / "locked/out.png"), previous);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "locked"), fs::directory_iterator{}), 1);
}

const Row kRows[] = {
    {"UndecodableFiles",
     {"@missing.png @k.png @out.png", "@in.png @missing.png @out.png", "@ @k.png @out.png",
      "@in.png @ @out.png", "@empty.png @k.png @out.png", "@in.png @empty.png @out.png",
      "@noise.png @k.png @out.png", "@in.png @noise.png @out.png", "@cut1.png @k.png @out.png",
      "@cut2.png @k.png @out.png", "@in.png @cut3.png @out.png", "@cut1.jpg @k.png @out.png",
      "@in.png @cut2.jpg @out.png", "@cut3.jpg @k.png @out.png"},
     kRefused,
     "Cannot load image %"},
    {"HeaderOverThePixelLimit", {"@huge.png @k.png @out.png"}, kRefused, "Cannot load image %"},
    {"ImageSmallerThanTheKernel",
     {"@tiny1x1.png @k.png @out.png 0", "@tiny1x9.png @k.png @out.png 1",
      "@tiny9x1.png @k.png @out.png 0", "@tiny2x2.png @k.png @out.png 1",
      "@in.png @wide.png @out.png 0"},
     kRefused,
     "Cannot deblur",
     "larger than the image"},
    {"LargeKernelImageWithSmallSupport", {"@in.png @big.png @out.png 0"}, kWorks},
    {"OneSampleKernel",
     {"@in.png @one.png @out.png 0"},
     kWorks,
     "",
     "",
     [](BadInput& t) {  // nothing to undo: the result stays close to the input
       EXPECT_GT(synthesis::Psnr(t.Planes("out.png").planes, t.Planes("in.png").planes, 24, 16),
                 25.0);
     }},
    {"BlackKernel", {"@in.png @black.png @out.png 0"}, kRefused, "Cannot deblur", "black"},
    {"KernelWithAlpha",
     {"@in.png @ka.png @alpha.png 0", "@in.png @k.png @plain.png 0"},
     kWorks,
     "",
     "",
     [](BadInput& t) { EXPECT_EQ(t.Bytes("alpha.png"), t.Bytes("plain.png")); }},
    {"BoundaryTypeReadAsAtoi",
     {"@in.png @k.png @x.png x", "@in.png @k.png @0.png 0", "@in.png @k.png @-3.png -3",
      "@in.png @k.png @huge.png 99999999999", "@in.png @k.png @1.png 1"},
     kWorks,
     "",
     "",
     [](BadInput& t) {  // text gives 0; any other value selects smooth borders
       EXPECT_EQ(t.Bytes("x.png"), t.Bytes("0.png"));
       EXPECT_EQ(t.Bytes("-3.png"), t.Bytes("1.png"));
       EXPECT_EQ(t.Bytes("huge.png"), t.Bytes("1.png"));
       EXPECT_NE(t.Bytes("0.png"), t.Bytes("1.png"));
     }},
    {"SettingsThatAreNotNumbersReadAsZero",
     {"@in.png @k.png @x.png 0 x x", "@in.png @k.png @0.png 0 0 0"},
     kWorks,
     "",
     "",
     [](BadInput& t) { EXPECT_EQ(t.Bytes("x.png"), t.Bytes("0.png")); }},
    {"NoiseZeroOrNegativeIsNoiseFree",
     {"@in.png @k.png @n.png 0 -1 -5", "@in.png @k.png @0.png 0 0 0"},
     kWorks,
     "",
     "",
     [](BadInput& t) { EXPECT_EQ(t.Bytes("n.png"), t.Bytes("0.png")); }},
    {"HugeNoiseReturnsTheImage",
     {"@in.png @k.png @h.png 1 1e308"},
     kWorks,
     "",
     "",
     [](BadInput& t) { EXPECT_EQ(t.Planes("h.png").planes, t.Planes("in.png").planes); }},
    {"NonFiniteSettings",
     {"@in.png @k.png @out.png 0 inf", "@in.png @k.png @out.png 0 nan",
      "@in.png @k.png @out.png 0 -inf", "@in.png @k.png @out.png 0 1 inf",
      "@in.png @k.png @out.png 0 1 nan", "@in.png @k.png @out.png 0 1 1e308"},
     kRefused,
     "Cannot deblur",
     "must be a finite number"},
    {"UnwritableOutputs",
     {"@in.png @k.png @missing/out.png", "@in.png @k.png @out.tif", "@in.png @k.png @out.PNG"},
     kWarns,
     "",
     "",
     [](BadInput& t) { ReadOnlyFolderKeepsItsFile(t.dir, t.previous); }},
    {"OutputReplacesTheInput",
     {"@in.png @k.png @in.png"},
     kWorks,
     "",
     "",
     [](BadInput& t) {
       EXPECT_NE(t.Bytes("in.png"), t.input);
       EXPECT_EQ(t.Planes("in.png").width, 24);
     }},
};

INSTANTIATE_TEST_SUITE_P(ReadmeTable, BadInput, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace marlith::test
