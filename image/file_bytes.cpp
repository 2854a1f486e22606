#include "image/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>

namespace marlith {
namespace {

std::string OsError(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

// Reads at most limit bytes of the regular file at path into bytes. The file is opened without
// blocking, so that a FIFO or a device is refused at once instead of waiting for a writer.
// Returns false with a one-line reason naming path in error.
bool ReadRegularFile(const std::string& path, size_t limit, std::string& bytes,
                     std::string& error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
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

// The file a write to path replaces: path itself, or the end of its chain of symbolic links,
// so that a link stays a link and its target gets the new contents. False (errno ELOOP) for a
// chain that does not end.
bool LinkTarget(const std::string& path, std::filesystem::path& target) {
  target = path;
  for (int hops = 0; hops < 40; ++hops) {
    struct stat info {};
    if (::lstat(target.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return true;
    std::error_code ec;
    const std::filesystem::path next = std::filesystem::read_symlink(target, ec);
    if (ec) return true;
    target = next.is_absolute() ? next : target.parent_path() / next;
  }
  errno = ELOOP;
  return false;
}

bool WriteAll(int fd, std::string_view bytes) {
  const char* data = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

// Writes bytes to fd, gives it the mode of the file it replaces (when there is one: a private
// 0600 file stays private) and syncs it.
bool FillFile(int fd, std::string_view bytes, const struct stat* replaced) {
  if (replaced && ::fchmod(fd, replaced->st_mode & 07777) != 0) return false;
  return WriteAll(fd, bytes) && ::fsync(fd) == 0;
}

// The hidden names of the files being written at this moment, for RemoveTemporaryFiles, which
// a signal handler calls: a slot's path is read only while its state says it is complete.
struct TemporarySlot {
  std::atomic<int> state{0};  // 0 free, 1 being filled in, 2 holds a name to remove
  char path[PATH_MAX] = {};
};
static_assert(std::atomic<int>::is_always_lock_free);
TemporarySlot gTemporaries[64];

// Holds name in a slot while the object lives (in none when every slot is taken: a write then
// goes on without the clean-up).
class TemporaryName {
 public:
  explicit TemporaryName(const std::filesystem::path& name) {
    if (name.native().size() >= PATH_MAX) return;
    for (TemporarySlot& s : gTemporaries) {
      int expected = 0;
      if (!s.state.compare_exchange_strong(expected, 1)) continue;
      std::memcpy(s.path, name.c_str(), name.native().size() + 1);
      s.state.store(2);
      slot_ = &s;
      return;
    }
  }
  ~TemporaryName() {
    if (slot_) slot_->state.store(0);
  }
  TemporaryName(const TemporaryName&) = delete;
  TemporaryName& operator=(const TemporaryName&) = delete;

 private:
  TemporarySlot* slot_ = nullptr;
};

// A name in folder for a file being written, hidden and unlikely to be taken.
std::filesystem::path HiddenName(const std::filesystem::path& folder,
                                 const std::filesystem::path& target) {
  static std::atomic<unsigned> counter{0};
  char suffix[40];
  std::snprintf(suffix, sizeof suffix, ".%d.%u.%lx", static_cast<int>(::getpid()), counter++,
                static_cast<unsigned long>(std::random_device{}()));
  return folder / ("." + target.filename().string() + suffix);
}

// The unnamed file's way: the file has no name while it is written, so a process killed then
// leaves nothing behind; it is linked under the target's name (or, over an existing file, under
// a hidden name renamed over it at once) only when complete. Returns -1 when the file system
// has no unnamed files (the caller writes a named temporary file instead), else 1 when written
// or 0 when writing failed (errno says why).
int WriteUnnamed(const std::filesystem::path& folder, const std::filesystem::path& target,
                 std::string_view bytes, const struct stat* replaced) {
  const int fd = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
  if (fd < 0) return -1;
  if (!FillFile(fd, bytes, replaced)) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return 0;
  }
  // linkat with AT_EMPTY_PATH needs a privilege; the /proc path to the descriptor does not.
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  auto link = [&](const std::filesystem::path& name) {
    return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
  };
  int result = 1;
  if (replaced || !link(target)) {
    if (!replaced && errno != EEXIST) {
      result = -1;  // no /proc, say: the named way below
    } else {
      // linkat never replaces a file: over one, a hidden name renamed over it at once.
      const std::filesystem::path hidden = HiddenName(folder, target);
      const TemporaryName named(hidden);
      if (!link(hidden)) {
        result = -1;
      } else if (::rename(hidden.c_str(), target.c_str()) != 0) {
        const int saved = errno;
        ::unlink(hidden.c_str());
        errno = saved;
        result = 0;
      }
    }
  }
  const int saved = errno;
  ::close(fd);
  errno = saved;
  return result;
}

// The named way, for file systems without unnamed files: a hidden file beside the target,
// renamed over it when complete and removed when anything fails.
bool WriteNamed(const std::filesystem::path& folder, const std::filesystem::path& target,
                std::string_view bytes, const struct stat* replaced) {
  std::optional<TemporaryName> named;
  std::filesystem::path hidden;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 100; ++attempt) {
    hidden = HiddenName(folder, target);
    named.emplace(hidden);
    // 0666 less the umask, as any new file gets.
    fd = ::open(hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) return false;
  }
  if (fd < 0) return false;
  bool ok = FillFile(fd, bytes, replaced);
  int saved = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    saved = errno;
  }
  if (ok && ::rename(hidden.c_str(), target.c_str()) != 0) {
    ok = false;
    saved = errno;
  }
  if (!ok) ::unlink(hidden.c_str());
  errno = saved;
  return ok;
}

}  // namespace

void RemoveTemporaryFiles() {
  for (TemporarySlot& s : gTemporaries)
    if (s.state.load() == 2) ::unlink(s.path);
}

bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error) {
  if (!ReadRegularFile(path, SIZE_MAX, bytes, error)) return false;
  if (bytes.empty()) {
    error = path + " is empty";
    return false;
  }
  return true;
}

bool ReadFileHead(const std::string& path, size_t count, std::string& bytes) {
  std::string error;
  return ReadRegularFile(path, count, bytes, error);
}

bool WriteFileAtomically(const std::string& path, std::string_view bytes, std::string& error) {
  std::filesystem::path target;
  if (!LinkTarget(path, target)) {
    error = OsError("cannot write", path);
    return false;
  }
  const std::filesystem::path folder =
      target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
  struct stat info {};
  const bool exists = ::stat(target.c_str(), &info) == 0 && S_ISREG(info.st_mode);
  const struct stat* replaced = exists ? &info : nullptr;
  int written = WriteUnnamed(folder, target, bytes, replaced);
  if (written < 0) written = WriteNamed(folder, target, bytes, replaced) ? 1 : 0;
  if (written == 0) {
    error = OsError("cannot write", path);
    return false;
  }
  return true;
}

}  // namespace marlith
