#include "plane/fftw_wisdom.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace marlith {
namespace {

constexpr const char* kMagic = "marlith fftw wisdom 1";

uint64_t Fnv1a(const std::string& text) {
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : text) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

std::string Hex(uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

// The value of the first "name : value" line of /proc/cpuinfo, or "".
std::string CpuInfo(const std::string& name) {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, name.size(), name) != 0) continue;
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const size_t start = line.find_first_not_of(' ', colon + 1);
    return start == std::string::npos ? "" : line.substr(start);
  }
  return "";
}

bool ReadFile(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  text = bytes.str();
  return !in.bad();
}

// Writes text to a temporary file in folder and renames it to path: a reader sees the old file
// or the new one, never a part.
bool WriteAtomically(const std::string& folder, const std::string& path, const std::string& text) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  std::string temporary = path + ".XXXXXX";
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) return false;
  const char* data = text.data();
  size_t left = text.size();
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
  ::fchmod(fd, 0644);
  if (::close(fd) != 0) ok = false;
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) ok = false;
  if (!ok) ::unlink(temporary.c_str());
  return ok;
}

// The process's side of the store: FFTW keeps the wisdom itself, this the keys planned before.
// Each key has a file of its own, read only when the key is planned: a run imports the wisdom
// of its own transforms, however many sizes the cache holds (one file of every size's wisdom
// took 10 to 13 ms to import at 600 KB, and grew with every size).
struct Store {
  std::string folder;              // empty when the disk cache is off
  std::set<std::string> seen;      // keys planned before, in this process or an earlier one
  std::set<std::string> imported;  // keys whose files were read from folder
  PlanSource last = PlanSource::kEstimated;
};

Store& TheStore() {
  static Store store;
  return store;
}

std::string PathFor(const Store& store, const std::string& key) {
  return store.folder + "/fftw-wisdom-" + Hex(Fnv1a(WisdomIdentity())) + "-" + Hex(Fnv1a(key)) +
         ".txt";
}

// Imports key's file's wisdom and keys, when it is there and checks out.
void ImportKeyFile(Store& store, const std::string& key) {
  std::string text;
  WisdomFileContents contents;
  if (store.folder.empty() || !ReadFile(PathFor(store, key), text) ||
      !ParseWisdomFile(text, WisdomIdentity(), contents)) {
    return;
  }
  if (!contents.wisdom.empty() && fftw_import_wisdom_from_string(contents.wisdom.c_str()) == 0) {
    return;
  }
  store.seen.insert(contents.seen.begin(), contents.seen.end());
}

// Reads key's file once, and again when the environment names another folder.
void Load(Store& store, const std::string& key) {
  const std::string folder = WisdomDirectory();
  if (folder != store.folder) store.imported.clear();
  store.folder = folder;
  if (store.imported.insert(key).second) ImportKeyFile(store, key);
}

// Saves the process's wisdom as key's file, merged with what another process may have saved
// there since. A cache that cannot be written is no error: the next run plans again.
void Save(Store& store, const std::string& key) {
  if (store.folder.empty()) return;
  ImportKeyFile(store, key);
  WisdomFileContents contents;
  contents.seen = {key};
  if (char* wisdom = fftw_export_wisdom_to_string()) {
    contents.wisdom = wisdom;
    std::free(wisdom);
  }
  WriteAtomically(store.folder, PathFor(store, key), FormatWisdomFile(contents, WisdomIdentity()));
}

}  // namespace

std::string WisdomDirectory() {
  if (const char* value = std::getenv("MARLITH_FFTW_WISDOM")) {
    const std::string folder = value;
    return folder == "off" ? "" : folder;
  }
  const char* cache = std::getenv("XDG_CACHE_HOME");
  if (cache && cache[0] == '/') return std::string(cache) + "/marlith";
  const char* home = std::getenv("HOME");
  if (home && home[0] == '/') return std::string(home) + "/.cache/marlith";
  return "";
}

std::string WisdomIdentity() {
  static const std::string identity = [] {
    std::string text = std::string(fftw_version) + " " + fftw_cc + " " + fftw_codelet_optim +
                       "; cpu " + CpuInfo("model name") + "; flags " +
                       Hex(Fnv1a(CpuInfo("flags"))) + "; cpus " +
                       std::to_string(std::thread::hardware_concurrency());
    for (char& c : text)
      if (c == '\n' || c == '\r') c = ' ';
    return text;
  }();
  return identity;
}

std::string FormatWisdomFile(const WisdomFileContents& contents, const std::string& identity) {
  std::string text = std::string(kMagic) + "\nidentity " + identity + "\n";
  for (const std::string& key : contents.seen) text += "seen " + key + "\n";
  text += "wisdom " + std::to_string(contents.wisdom.size()) + " " + Hex(Fnv1a(contents.wisdom)) +
          "\n" + contents.wisdom;
  return text;
}

bool ParseWisdomFile(const std::string& text, const std::string& identity,
                     WisdomFileContents& out) {
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || line != kMagic) return false;
  if (!std::getline(in, line) || line != "identity " + identity) return false;
  WisdomFileContents contents;
  while (std::getline(in, line)) {
    if (line.compare(0, 5, "seen ") == 0) {
      contents.seen.insert(line.substr(5));
      continue;
    }
    unsigned long long size = 0;
    char checksum[17] = {};
    if (std::sscanf(line.c_str(), "wisdom %llu %16s", &size, checksum) != 2) return false;
    const auto start = static_cast<size_t>(in.tellg());
    if (in.tellg() < 0 || text.size() - start != size) return false;
    contents.wisdom = text.substr(start);
    if (Hex(Fnv1a(contents.wisdom)) != checksum) return false;
    out = std::move(contents);
    return true;
  }
  return false;
}

fftw_plan PlanWithWisdom(const std::string& key, const std::function<fftw_plan(unsigned)>& make) {
  Store& store = TheStore();
  Load(store, key);
  if (fftw_plan plan = make(FFTW_MEASURE | FFTW_WISDOM_ONLY)) {
    store.last = PlanSource::kFromWisdom;
    return plan;
  }
  // Measuring costs some hundred transforms (0.7 s at 1000 x 1000 on two cores) and saves 40 %
  // of each later one: it pays for sizes that come back, so a size is measured the second time
  // it is planned, and the first run of a new size costs no more than it did.
  const bool again = !store.seen.insert(key).second;
  fftw_plan plan = make(again ? FFTW_MEASURE : FFTW_ESTIMATE);
  store.last = again ? PlanSource::kMeasured : PlanSource::kEstimated;
  Save(store, key);
  return plan;
}

PlanSource LastPlanSource() { return TheStore().last; }

}  // namespace marlith
