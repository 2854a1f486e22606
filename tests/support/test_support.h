// Helpers shared by the test executables.
#pragma once

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

// The marlith executable under test and the source tree: the environment's MARLITH_EXE and
// MARLITH_SOURCE_DIR when set, else the paths the test executable was built with.
std::string MarlithExe(const char* builtIn);
std::filesystem::path SourceDir(const char* builtIn);
#ifdef MARLITH_EXE
inline std::string MarlithExe() { return MarlithExe(MARLITH_EXE); }
#endif
#ifdef MARLITH_SOURCE_DIR
inline std::filesystem::path SourceDir() { return SourceDir(MARLITH_SOURCE_DIR); }
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
// A PNG stream: the signature, then each chunk (type, data) with its length and CRC.
std::string PngStream(const std::vector<std::pair<std::string, std::string>>& chunks);
// data compressed with zlib, as a PNG's IDAT chunk holds it.
std::string Deflated(const std::string& data);
// A PNG whose header claims 100000 x 100000 8-bit RGB pixels, with the first rows' worth of
// compressed zero bytes after it: a reader must refuse it from the header.
std::string HugePng();

}  // namespace marlith::test
