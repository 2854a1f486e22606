// The wisdom file: read back as written, refused when altered, cut short or from another
// machine; and a size planned a second time measured, a third time taken from wisdom, each
// transform in a file of its own.
#include "plane/fftw_wisdom.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "plane/fourier_transform.h"

namespace marlith {
namespace {

TEST(WisdomFile, ReadsBackWhatItWroteAndRefusesAlteredShortOrForeignFiles) {
  WisdomFileContents contents;
  contents.seen = {"r2c 64x48 t2", "c2r 64x48 t2"};
  contents.wisdom = "(fftw-3.3.10 fftw_wisdom\n  (fftw_rdft2_rank_geq2_register 0 1 2 3)\n)\n";
  const std::string text = FormatWisdomFile(contents, "machine A");

  WisdomFileContents read;
  ASSERT_TRUE(ParseWisdomFile(text, "machine A", read));
  EXPECT_EQ(read.seen, contents.seen);
  EXPECT_EQ(read.wisdom, contents.wisdom);

  EXPECT_FALSE(ParseWisdomFile(text, "machine B", read));
  EXPECT_FALSE(ParseWisdomFile(text.substr(0, text.size() - 3), "machine A", read));
  std::string altered = text;
  altered[altered.size() - 10] ^= 1;
  EXPECT_FALSE(ParseWisdomFile(altered, "machine A", read));
  EXPECT_FALSE(ParseWisdomFile("", "machine A", read));
  EXPECT_FALSE(ParseWisdomFile("\x89PNG garbage", "machine A", read));
}

TEST(WisdomStore, MeasuresASizePlannedTwiceAndKeepsItOnDisk) {
  // A fresh folder of the test's own (ctest points the variable at the build tree).
  const auto folder = std::filesystem::temp_directory_path() /
                      ("marlith-wisdom-test-" + std::to_string(::getpid()));
  std::filesystem::remove_all(folder);
  ASSERT_EQ(setenv("MARLITH_FFTW_WISDOM", folder.c_str(), 1), 0);
  {
    SpectralTransform first(70, 36, SpectralTransform::kForward);
    EXPECT_EQ(LastPlanSource(), PlanSource::kEstimated);
    SpectralTransform second(70, 36, SpectralTransform::kForward);
    EXPECT_EQ(LastPlanSource(), PlanSource::kMeasured);
    SpectralTransform third(70, 36, SpectralTransform::kForward);
    EXPECT_EQ(LastPlanSource(), PlanSource::kFromWisdom);
    SpectralTransform other(48, 40, SpectralTransform::kForward);  // a file of its own
  }
  std::string text;
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    ++files;
    EXPECT_EQ(entry.path().filename().string().rfind("fftw-wisdom-", 0), 0u);
    EXPECT_EQ(entry.path().extension(), ".txt");  // no temporary file left behind
  }
  EXPECT_EQ(files, 2);
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace marlith
