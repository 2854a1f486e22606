#include "image/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>

namespace marlith {
namespace {

std::string OsError(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

// Reads at most limit bytes of the regular file at path, opened with the extra flags, into
// bytes. Returns false with a one-line reason naming path in error.
bool ReadRegularFile(const std::string& path, int flags, size_t limit, std::string& bytes,
                     std::string& error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
  if (fd < 0) {
    error = OsError("cannot open", path);
    return false;
  }
  struct stat info {};
  bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  if (!ok) error = path + " is not a regular file";
  bytes.clear();
  if (ok) bytes.reserve(std::min(limit, static_cast<size_t>(info.st_size)));
  char buffer[1 << 16];
  while (ok && bytes.size() < limit) {
    const ssize_t n = ::read(fd, buffer, std::min(sizeof buffer, limit - bytes.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = OsError("cannot read", path);
      ok = false;
    }
    if (n <= 0) break;
    bytes.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return ok;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error) {
  if (!ReadRegularFile(path, 0, SIZE_MAX, bytes, error)) return false;
  if (bytes.empty()) {
    error = path + " is empty";
    return false;
  }
  return true;
}

bool ReadFileHead(const std::string& path, size_t count, std::string& bytes) {
  std::string error;
  return ReadRegularFile(path, O_NONBLOCK, count, bytes, error);
}

bool WriteFileAtomically(const std::string& path, std::string_view bytes, std::string& error) {
  const std::filesystem::path target(path);
  const std::filesystem::path folder =
      target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
  std::string temporary = (folder / ("." + target.filename().string() + ".XXXXXX")).string();
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) {
    error = OsError("cannot write", path);
    return false;
  }
  // mkstemp makes the file private (0600); a saved image gets the mode any new file would.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);
  const char* data = bytes.data();
  size_t left = bytes.size();
  bool ok = true;
  while (left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    data += n;
    left -= static_cast<size_t>(n);
  }
  if (ok && ::fsync(fd) != 0) ok = false;
  if (::close(fd) != 0) ok = false;
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) ok = false;
  if (!ok) {
    error = OsError("cannot write", path);
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace marlith
