// Helpers shared by the test executables.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace marlith::test {

// n values drawn uniformly from [lo, hi) with a fixed seed.
std::vector<double> RandomValues(size_t n, unsigned seed, double lo = -1.0, double hi = 1.0);

// What a finished process left behind.
struct ProcessResult {
  int exitCode = -1;  // 0..255, or -1 when it did not exit normally (signal)
  std::string out;
  std::string err;
};

// Runs program with args (no shell), in the current directory, with a timeout in seconds.
ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args,
                         int timeoutSeconds = 120);

// The environment's variable name when set, else builtIn: the executables under test and the
// source tree, from MARLITH_EXE, MARLITH_DEBLUR_EXE and MARLITH_SOURCE_DIR or the paths the test
// executable was built with.
std::string FromEnvironment(const char* name, const char* builtIn);
#ifdef MARLITH_EXE
inline std::string MarlithExe() { return FromEnvironment("MARLITH_EXE", MARLITH_EXE); }
#endif
#ifdef MARLITH_DEBLUR_EXE
inline std::string DeblurExe() { return FromEnvironment("MARLITH_DEBLUR_EXE", MARLITH_DEBLUR_EXE); }
#endif
#ifdef MARLITH_SOURCE_DIR
inline std::filesystem::path SourceDir() {
  return FromEnvironment("MARLITH_SOURCE_DIR", MARLITH_SOURCE_DIR);
}
#endif

// A fresh empty folder, removed with its contents when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// The bytes of a file ("" when it cannot be read).
std::string ReadFileBytes(const std::filesystem::path& path);
void WriteFileBytes(const std::filesystem::path& path, const std::string& bytes);

// Expects act to throw marlith::Error whose message is one line naming file and saying why.
void ExpectRefused(const std::function<void()>& act, const std::string& file,
                   const std::string& why);

// A big-endian EXIF block whose first directory holds the orientation and a resolution unit.
std::string ExifBlock(int orientation);
// A minimal well-formed RGB display ICC profile: the 128-byte header and an empty tag table.
std::string IccProfile();
// An ICC display profile made by Little CMS with sRGB's primaries and white point: RGB, each
// channel's tone curve the power gammas[c] of its sample (0: the sRGB curve; all three 0: Little
// CMS's own sRGB profile); or, when grey, grey with the curve of gammas[1].
std::string CurvesIccProfile(std::array<double, 3> gammas, bool grey = false);
// A PNG stream: the signature, then each chunk (type, data) with its length and CRC.
std::string PngStream(const std::vector<std::pair<std::string, std::string>>& chunks);
// A PNG whose header claims 100000 x 100000 8-bit RGB pixels: a reader must refuse it before
// taking memory for them.
std::string HugePng();

}  // namespace marlith::test
