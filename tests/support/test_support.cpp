#include "support/test_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <lcms2.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "marlith/error.hpp"

namespace marlith::test {

std::vector<double> RandomValues(size_t n, unsigned seed, double lo, double hi) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(lo, hi);
  std::vector<double> v(n);
  for (double& x : v) x = u(rng);
  return v;
}

ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args,
                         int timeoutSeconds) {
  // Standard output and error go to files of a private folder, read once the process ends.
  TempDir dir;
  const std::string out = dir / "out", err = dir / "err";
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT, 0600);
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, program.c_str(), &files, nullptr, argv.data(), environ) != 0)
    throw std::runtime_error("cannot start " + program);
  posix_spawn_file_actions_destroy(&files);
  int status = 0;
  for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; waited += 10) {
    if (waited >= timeoutSeconds * 1000) kill(pid, SIGKILL);
    usleep(10000);
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFileBytes(out), ReadFileBytes(err)};
}

std::string FromEnvironment(const char* name, const char* builtIn) {
  const char* value = std::getenv(name);
  return value ? value : builtIn;
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "marlith-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteFileBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

void ExpectRefused(const std::function<void()>& act, const std::string& file,
                   const std::string& why) {
  try {
    act();
    ADD_FAILURE() << file << " was not refused";
  } catch (const Error& e) {
    const std::string message = e.what();
    EXPECT_NE(message.find(file), std::string::npos) << message;
    EXPECT_NE(message.find(why), std::string::npos) << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  }
}

std::string ExifBlock(int orientation) {
  return std::string("MM\0*\0\0\0\x08\0\x02\x01\x12\0\x03\0\0\0\x01\0", 19) +
         static_cast<char>(orientation) +
         std::string("\0\0\x01\x28\0\x03\0\0\0\x01\0\x02\0\0\0\0\0\0", 18);
}

std::string IccProfile() {
  // Its size, version 2.1, class, colour space and connection space, then "acsp" at 36.
  return std::string("\0\0\0\x84\0\0\0\0\x02\x10\0\0mntrRGB XYZ ", 24) + std::string(12, '\0') +
         "acsp" + std::string(92, '\0');
}

std::string CurvesIccProfile(std::array<double, 3> gammas, bool grey) {
  // IEC 61966-2.1's curve as ICC parametric type 4: (a x + b)^g above d, c x below.
  const double iec[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* curves[3];
  for (int c = 0; c < 3; ++c)
    curves[c] = gammas[c] > 0 ? cmsBuildGamma(nullptr, gammas[c])
                              : cmsBuildParametricToneCurve(nullptr, 4, iec);
  cmsCIExyY white;
  cmsWhitePointFromTemp(&white, 6504);
  const cmsCIExyYTRIPLE primaries{{0.64, 0.33, 1}, {0.30, 0.60, 1}, {0.15, 0.06, 1}};
  const bool srgb = !grey && gammas == std::array<double, 3>{0, 0, 0};
  cmsHPROFILE profile = srgb   ? cmsCreate_sRGBProfile()
                        : grey ? cmsCreateGrayProfile(&white, curves[1])
                               : cmsCreateRGBProfile(&white, &primaries, curves);
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile, nullptr, &size);
  std::string bytes(size, '\0');
  cmsSaveProfileToMem(profile, bytes.data(), &size);
  cmsCloseProfile(profile);
  for (cmsToneCurve* curve : curves) cmsFreeToneCurve(curve);
  return bytes;
}

std::string PngStream(const std::vector<std::pair<std::string, std::string>>& chunks) {
  std::string png("\x89PNG\r\n\x1a\n", 8);
  auto be32 = [&](uLong v) {
    for (int shift = 24; shift >= 0; shift -= 8) png += static_cast<char>(v >> shift);
  };
  for (const auto& [type, data] : chunks) {
    be32(data.size());
    const std::string body = type + data;
    png += body;
    be32(crc32(0, reinterpret_cast<const Bytef*>(body.data()), body.size()));
  }
  return png;
}

std::string HugePng() {
  const std::string size("\0\x01\x86\xA0", 4);  // 100000, big-endian
  return PngStream({{"IHDR", size + size + std::string("\x08\x02\0\0\0", 5)},
                    {"IDAT", std::string("\x78\x01\x01\x04\0\xFB\xFF\0\0\1\2\0\x08\0\x04", 15)},
                    {"IEND", ""}});
}

}  // namespace marlith::test
