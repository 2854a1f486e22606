// A signal while a command writes its result: the folder is left as it was (or, where the
// command finishes the file it was writing, holds that file complete), and nothing else.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <map>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

namespace fs = std::filesystem;

// Every name in the folder with a hash of its bytes.
std::map<std::string, size_t> Folder(const fs::path& dir) {
  std::map<std::string, size_t> files;
  for (const auto& entry : fs::directory_iterator(dir))
    files[entry.path().filename()] = std::hash<std::string>()(ReadFileBytes(entry.path()));
  return files;
}

struct Row {
  const char* name;
  bool deblur;        // marlith-deblur, else the six-argument command
  bool replacing;     // out.png exists before the run
  int signal, count;  // raised count times ...
  const char* at;     // ... at the first linkat or rename
  int exitCode;       // -1: killed
  bool finished;      // the file being written is completed (marlith-deblur's first signal)
};

void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

class InterruptedWrite : public ::testing::TestWithParam<Row> {};

TEST_P(InterruptedWrite, LeavesTheFolderAsItWasOrTheResultComplete) {
  const Row& row = GetParam();
  TempDir dir;
  std::vector<double> pixels(48 * 40);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = 0.2 + 0.6 * (i % 48 / 8 % 2);
  synthesis::WriteImagePlanes(dir / "in.png", {pixels, 48, 40, 1});
  synthesis::WriteImagePlanes(dir / "k.png", {{0, 0.5, 0, 0.5, 1, 0.5, 0, 0.5, 0}, 3, 3, 1});
  if (row.replacing) synthesis::WriteImagePlanes(dir / "out.png", {{0.5, 0.5}, 2, 1, 1});
  const auto before = Folder(dir.path());

  setenv("LD_PRELOAD", MARLITH_SIGNAL_SHIM, 1);
  setenv("MARLITH_SIGNAL", std::to_string(row.signal).c_str(), 1);
  setenv("MARLITH_SIGNAL_COUNT", std::to_string(row.count).c_str(), 1);
  setenv("MARLITH_SIGNAL_AT", row.at, 1);
  const ProcessResult r =
      row.deblur ? RunProcess(DeblurExe(),
                              {"-q", "-k", dir / "k.png", "-o", dir / "out.png", dir / "in.png"})
                 : RunProcess(MarlithExe(),
                              {dir / "in.png", dir / "k.png", dir / "out.png", "1", "0.1", "1"});
  for (const char* name :
       {"LD_PRELOAD", "MARLITH_SIGNAL", "MARLITH_SIGNAL_COUNT", "MARLITH_SIGNAL_AT"})
    unsetenv(name);

  EXPECT_EQ(r.exitCode, row.exitCode) << r.out << r.err;
  auto after = Folder(dir.path());
  if (row.finished) {  // the whole result, decodable, where the old one was
    ASSERT_TRUE(after.contains("out.png"));
    EXPECT_EQ(synthesis::ReadImagePlanes(dir / "out.png").planes.size(), pixels.size());
    after.erase("out.png");
    EXPECT_EQ(before.contains("out.png"), row.replacing);
    if (row.replacing) after["out.png"] = before.at("out.png");
  }
  EXPECT_EQ(after, before);
}

const Row kRows[] = {
    {"CommandTermNew", false, false, SIGTERM, 1, "linkat", 143, false},
    {"CommandIntReplacing", false, true, SIGINT, 1, "linkat", 130, false},
    // Over an existing file the finished file is linked under a hidden name and renamed over it.
    {"CommandTermAtTheHiddenName", false, true, SIGTERM, 1, "rename", 143, false},
    {"CommandKill", false, true, SIGKILL, 1, "linkat", -1, false},
    {"DeblurKill", true, true, SIGKILL, 1, "linkat", -1, false},
    {"DeblurSecondSignalAtTheHiddenName", true, true, SIGTERM, 2, "rename", 143, false},
    {"DeblurFirstSignalFinishesTheFile", true, true, SIGINT, 1, "linkat", 130, true},
};

INSTANTIATE_TEST_SUITE_P(Signals, InterruptedWrite, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace marlith::test
