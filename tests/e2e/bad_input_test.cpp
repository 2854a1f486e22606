// What the executable does with bad input: one data row per line of the README's table.
#include <gtest/gtest.h>
#include <sys/stat.h>

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
class BadInput;
enum Outcome { kRefused, kWorks, kWarns };

struct Row {
  const char* name;  // the README line in a few words
  // Runs separated by ';', each the arguments after the executable: "@name" is a file of the
  // test's folder; boundary type 0, noise 1 and weight 1 where the run gives none.
  const char* runs;
  Outcome outcome;
  std::string says = "";  // refused: the first line's start ("%" the run's odd file) and a part
  std::string why = "";
  std::function<void(BadInput&)> check = nullptr;  // what the line promises beyond the outcome
};

void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

class BadInput : public ::testing::TestWithParam<Row> {
 public:
  TempDir dir;
  std::string previous, input;  // what out.png and in.png held before the runs

  void Write(const std::string& name, const ImagePlanes& image) {
    synthesis::WriteImagePlanes(dir / name, image);
  }
  std::string Bytes(const std::string& name) { return ReadFileBytes(dir / name); }
  std::vector<double> Planes(const std::string& name) {
    return synthesis::ReadImagePlanes(dir / name).planes;
  }

  void SetUp() override {
    ImagePlanes image{std::vector<double>(24 * 16, 0.3), 24, 16, 1};
    for (int i = 0; i < 24 * 16; ++i) image.planes[i] += i % 24 / 6 % 2 * (i / 96 % 2) * 0.4;
    Write("in.png", image);
    Write("k.png", {{0, 0.5, 0, 0.5, 1, 0.5, 0, 0.5, 0}, 3, 3, 1});
    Write("out.png", {std::vector<double>(4, 0.5), 2, 2, 1});  // a previous result
    std::tie(previous, input) = std::tuple(Bytes("out.png"), Bytes("in.png"));
    Write("in.jpg", {std::vector<double>(64 * 48, 0.4), 64, 48, 1});
    const std::string jpg = Bytes("in.jpg");
    for (auto [name, bytes] : {std::pair{"empty.png", std::string()},
                               {"noise.png", std::string(2048, '\x5a')},
                               {"cut1.png", input.substr(0, input.size() / 2)},
                               {"cut2.png", input.substr(0, input.size() - 12)},
                               {"cut1.jpg", jpg.substr(0, 100)},
                               {"cut2.jpg", jpg.substr(0, jpg.size() - 2)},
                               {"huge.png", HugePng()}})
      WriteFileBytes(dir / name, bytes);
    for (auto [w, h] : {std::pair{1, 1}, {1, 9}, {9, 1}, {2, 2}})
      Write("tiny" + std::to_string(w) + std::to_string(h) + ".png",
            {std::vector<double>(w * h, 0.5), w, h, 1});
    std::vector<double> big(40 * 40, 0.0);  // larger than the image, small support ...
    big[20 * 40 + 20] = 1.0;
    big[20 * 40 + 21] = 0.5;
    Write("big.png", {big, 40, 40, 1});
    Write("wide.png", {std::vector<double>(40 * 40, 0.2), 40, 40, 1});  // ... and large support
    Write("black.png", {std::vector<double>(25, 0.0), 5, 5, 1});
    Write("one.png", {{0.8}, 1, 1, 1});
    ASSERT_EQ(mkfifo((dir / "fifo.png").c_str(), 0600), 0);  // no writer: opening it would block
    ASSERT_EQ(
        std::system(("gm convert " + dir / "k.png" + " -matte PNG32:" + dir / "ka.png").c_str()),
        0);
  }
};

TEST_P(BadInput, DoesWhatTheReadmeSays) {
  const Row& row = GetParam();
  std::istringstream runs(row.runs);
  for (std::string line; std::getline(runs, line, ';');) {
    SCOPED_TRACE(line);
    std::vector<std::string> args;
    std::istringstream words(line);
    for (std::string w; words >> w;) args.push_back(w[0] == '@' ? dir / w.substr(1) : w);
    if (args.size() == 3) args.push_back("0");
    args.resize(6, "1");
    const ProcessResult r = RunProcess(MarlithExe(), args, 30);
    const std::string first = r.out.substr(0, r.out.find('\n'));
    EXPECT_EQ(r.exitCode, row.outcome == kRefused ? 255 : 0) << r.out << r.err;
    EXPECT_TRUE(std::regex_match(row.outcome == kRefused ? r.out.substr(first.size() + 1) : r.out,
                                 kTimeLine))
        << r.out;
    if (row.outcome == kRefused) {  // one line saying why, out.png as it was
      std::string says = row.says;
      if (says.back() == '%')
        says.replace(says.size() - 1, 1, args[0] != dir / "in.png" ? args[0] : args[1]);
      EXPECT_EQ(first.rfind(says, 0), 0u) << r.out;
      EXPECT_NE(first.find(row.why), std::string::npos) << r.out;
      EXPECT_EQ(Bytes("out.png"), previous);
      EXPECT_TRUE(row.says.back() != '%' || std::count(r.err.begin(), r.err.end(), '\n') == 1)
          << r.err;
    } else if (row.outcome == kWarns) {  // nothing written, one warning line naming the file
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      EXPECT_NE(r.err.find(args[2]), std::string::npos) << r.err;
      EXPECT_FALSE(fs::exists(args[2]));
    }
  }
  if (row.check) row.check(*this);
}

// Checks that runs wrote the same file, and that another run's file differs from it.
auto Same(std::vector<std::string> names, std::string other = "") {
  return [=](BadInput& t) {
    for (const std::string& name : names) EXPECT_EQ(t.Bytes(name), t.Bytes(names[0])) << name;
    EXPECT_TRUE(other.empty() || t.Bytes(names[0]) != t.Bytes(other)) << names[0] << " " << other;
  };
}

const Row kRows[] = {
    {"UndecodableFiles",
     "@missing.png @k.png @out.png; @in.png @missing.png @out.png; @ @k.png @out.png; @in.png @ "
     "@out.png; @empty.png @k.png @out.png; @in.png @noise.png @out.png; @cut1.png @k.png "
     "@out.png; @in.png @cut2.png @out.png; @cut1.jpg @k.png @out.png; @in.png @cut2.jpg @out.png; "
     "@cut1.png @cut2.png @out.png",
     kRefused, "Cannot load image %"},
    {"NotARegularFile",  // refused at once: a FIFO is never waited on
     "@fifo.png @k.png @out.png; @in.png @fifo.png @out.png", kRefused, "Cannot load image %"},
    {"HeaderOverThePixelLimit", "@huge.png @k.png @out.png", kRefused, "Cannot load image %"},
    {"ImageSmallerThanTheKernel",
     "@tiny11.png @k.png @out.png; @tiny19.png @k.png @out.png 1; @tiny91.png @k.png @out.png; "
     "@tiny22.png @k.png @out.png 1; @in.png @wide.png @out.png",
     kRefused, "Cannot deblur", "larger than the image"},
    {"LargeKernelImageWithSmallSupport", "@in.png @big.png @out.png", kWorks},
    {"OneSampleKernel", "@in.png @one.png @out.png", kWorks, "", "",
     [](BadInput& t) {  // nothing to undo: the result stays close to the input
       EXPECT_GT(synthesis::Psnr(t.Planes("out.png"), t.Planes("in.png"), 24, 16), 25.0);
     }},
    {"BlackKernel", "@in.png @black.png @out.png", kRefused, "Cannot deblur", "black"},
    {"KernelWithAlpha", "@in.png @ka.png @alpha.png; @in.png @k.png @plain.png", kWorks, "", "",
     Same({"alpha.png", "plain.png"})},
    {"BoundaryTypeReadAsAtoi",  // text gives 0; any other value selects smooth borders
     "@in.png @k.png @x.png x; @in.png @k.png @0.png 0; @in.png @k.png @-3.png -3; @in.png @k.png "
     "@huge.png 99999999999; @in.png @k.png @1.png 1",
     kWorks, "", "",
     [](BadInput& t) {
       Same({"x.png", "0.png"}, "1.png")(t);
       Same({"-3.png", "huge.png", "1.png"})(t);
     }},
    {"SettingsThatAreNotNumbersReadAsZero",
     "@in.png @k.png @x.png 0 x x; @in.png @k.png @0.png 0 0 0", kWorks, "", "",
     Same({"x.png", "0.png"})},
    {"NoiseZeroOrNegativeIsNoiseFree", "@in.png @k.png @n.png 0 -1 -5; @in.png @k.png @0.png 0 0 0",
     kWorks, "", "", Same({"n.png", "0.png"})},
    {"HugeNoiseReturnsTheImage", "@in.png @k.png @h.png 1 1e308", kWorks, "", "",
     [](BadInput& t) { EXPECT_EQ(t.Planes("h.png"), t.Planes("in.png")); }},
    {"NonFiniteSettings",
     "@in.png @k.png @out.png 0 inf; @in.png @k.png @out.png 0 nan; @in.png @k.png @out.png 0 "
     "-inf; "
     "@in.png @k.png @out.png 0 1 inf; @in.png @k.png @out.png 0 1 nan; @in.png @k.png @out.png 0 "
     "1 1e308",
     kRefused, "Cannot deblur", "must be a finite number"},
    {"UnwritableOutputs",
     "@in.png @k.png @missing/out.png; @in.png @k.png @out.tif; @in.png @k.png @out.PNG", kWarns},
    {"OutputReplacesTheInput", "@in.png @k.png @in.png", kWorks, "", "",
     [](BadInput& t) { EXPECT_NE(t.Bytes("in.png"), t.input); }},
};

INSTANTIATE_TEST_SUITE_P(ReadmeTable, BadInput, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace marlith::test
