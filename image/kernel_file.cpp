#include "image/kernel_file.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "image/file_bytes.h"
#include "image/image_io.h"
#include "marlith/error.hpp"

namespace marlith {
namespace {

// No kernel may hold more values than an image may hold pixels.
constexpr uint64_t kMaxKernelValues = kMaxImagePixels;

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", v);
  return text;
}

// Negative values down to this fraction of the peak are set to 0 (a measured PSF after its
// background was subtracted); below it the file is more likely not a kernel at all.
constexpr double kNegativeShare = 0.05;

// Refuses NaN and infinite values and negatives below kNegativeShare of the peak, naming the
// first one's place; sets the smaller negatives to 0 with a warning.
void CheckValues(KernelFile& kernel, const std::string& name) {
  if (kernel.values.empty()) throw Error(name + ": the kernel holds no values");
  double peak = 0.0, lowest = 0.0;
  for (double v : kernel.values)
    if (std::isfinite(v)) peak = std::max(peak, v), lowest = std::min(lowest, v);
  const double floor = -kNegativeShare * peak;
  size_t negatives = 0;
  for (size_t i = 0; i < kernel.values.size(); ++i) {
    const double v = kernel.values[i];
    const char* problem = std::isnan(v)   ? "NaN"
                          : std::isinf(v) ? "infinite"
                          : v < floor     ? "negative"
                                          : "";
    if (*problem) {
      throw Error(
          name + ": the kernel value at x " + std::to_string(i % kernel.width) + ", y " +
          std::to_string(i / kernel.width) + " is " + problem +
          (v < 0 ? " (" + Number(v) + ", below 5 % of the peak " + Number(peak) + ")" : "") +
          "; kernel values must be finite and 0 or more");
    }
    if (v < 0.0 || (v == 0.0 && std::signbit(v))) ++negatives, kernel.values[i] = 0.0;
  }
  if (negatives > 0 && lowest < 0.0) {
    kernel.warnings.push_back(name + ": " + std::to_string(negatives) +
                              " negative kernel values (the lowest " + Number(lowest) + ", " +
                              Number(-100 * lowest / peak) + " % of the peak) set to 0");
  }
}

void CheckSum(const KernelFile& kernel, const std::string& name) {
  double sum = 0.0;
  for (double v : kernel.values) sum += v;
  if (sum == 0.0) throw Error(name + ": the kernel's values sum to 0");
  if (std::isinf(sum)) throw Error(name + ": the kernel's values sum beyond a double's range");
}

// A recursive-descent reader of the Python dict literal in an .npy header, e.g.
// {'descr': '<f8', 'fortran_order': False, 'shape': (3, 4), }
class NpyHeaderReader {
 public:
  explicit NpyHeaderReader(std::string_view text) : text_(text) {}

  bool Eat(char c) {
    SkipSpace();
    if (at_ < text_.size() && text_[at_] == c) {
      ++at_;
      return true;
    }
    return false;
  }
  bool AtEnd() {
    SkipSpace();
    return at_ == text_.size();
  }
  std::optional<std::string> String() {
    SkipSpace();
    if (at_ >= text_.size() || (text_[at_] != '\'' && text_[at_] != '"')) return std::nullopt;
    const size_t close = text_.find(text_[at_], at_ + 1);
    if (close == std::string_view::npos) return std::nullopt;
    std::string s(text_.substr(at_ + 1, close - at_ - 1));
    at_ = close + 1;
    return s;
  }
  std::optional<bool> Bool() {
    SkipSpace();
    for (const bool value : {true, false}) {
      const std::string_view word = value ? "True" : "False";
      if (text_.substr(at_).starts_with(word)) {
        at_ += word.size();
        return value;
      }
    }
    return std::nullopt;
  }
  // A tuple of non-negative integers, each at most limit: (3, 4), (3,), ().
  std::optional<std::vector<uint64_t>> Tuple(uint64_t limit) {
    if (!Eat('(')) return std::nullopt;
    std::vector<uint64_t> items;
    while (!Eat(')')) {
      if (!items.empty() && !Eat(',')) return std::nullopt;
      if (Eat(')')) break;  // a trailing comma
      SkipSpace();
      uint64_t v = 0;
      const auto [end, error] = std::from_chars(text_.data() + at_, text_.data() + text_.size(), v);
      if (error != std::errc() || v > limit || items.size() >= 32) return std::nullopt;
      at_ = static_cast<size_t>(end - text_.data());
      if (at_ < text_.size() && text_[at_] == 'L') ++at_;  // Python 2's long integers
      items.push_back(v);
    }
    return items;
  }

 private:
  void SkipSpace() {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) ++at_;
  }
  std::string_view text_;
  size_t at_ = 0;
};

struct NpyHeader {
  std::string descr;
  bool fortranOrder = false;
  std::vector<uint64_t> shape;
};

NpyHeader ReadNpyHeader(std::string_view text, const std::string& name) {
  auto malformed = [&](const std::string& what) {
    return Error(name + ": the .npy header is malformed (" + what + ")");
  };
  NpyHeaderReader reader(text);
  NpyHeader header;
  bool seen[3] = {false, false, false};
  if (!reader.Eat('{')) throw malformed("no '{'");
  while (!reader.Eat('}')) {
    const std::optional<std::string> key = reader.String();
    if (!key || !reader.Eat(':')) throw malformed("a key");
    if (*key == "descr") {
      const std::optional<std::string> descr = reader.String();
      if (!descr)
        throw Error(name + ": the .npy array has a structured dtype; a kernel needs numbers");
      header.descr = *descr;
      seen[0] = true;
    } else if (*key == "fortran_order") {
      const std::optional<bool> order = reader.Bool();
      if (!order) throw malformed("fortran_order");
      header.fortranOrder = *order;
      seen[1] = true;
    } else if (*key == "shape") {
      std::optional<std::vector<uint64_t>> shape = reader.Tuple(kMaxKernelValues);
      if (!shape)
        throw malformed("shape, or a dimension above " + std::to_string(kMaxKernelValues));
      header.shape = std::move(*shape);
      seen[2] = true;
    } else {
      throw malformed("unknown key '" + *key + "'");
    }
    if (!reader.Eat(',')) {
      if (!reader.Eat('}')) throw malformed("no ',' or '}' after " + *key);
      break;
    }
  }
  if (!reader.AtEnd()) throw malformed("text after the closing '}'");
  if (!seen[0] || !seen[1] || !seen[2]) throw malformed("descr, fortran_order or shape missing");
  return header;
}

// The unsigned integer in bytes b[at, at + bytes), in the given byte order.
uint64_t Unsigned(std::string_view b, size_t at, int bytes, bool bigEndian = false) {
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) {
    v = v << 8 | static_cast<uint8_t>(b[at + (bigEndian ? i : bytes - 1 - i)]);
  }
  return v;
}

// Rec. 709 luminance weights.
constexpr double kRed = 0.2126, kGreen = 0.7152, kBlue = 0.0722;

KernelFile KernelFromImage(const LoadedImage& image, const std::string& path) {
  KernelFile kernel;
  kernel.width = image.width;
  kernel.height = image.height;
  const size_t n = size_t(image.width) * image.height;
  const double* p = image.planes.data();
  const double* alpha = image.hasAlpha ? p + image.colourChannels * n : nullptr;
  kernel.values.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const double luminance =
        image.colourChannels == 1 ? p[i] : kRed * p[i] + kGreen * p[n + i] + kBlue * p[2 * n + i];
    kernel.values[i] = alpha ? luminance * alpha[i] : luminance;
  }
  CheckValues(kernel, path);

  const int w = kernel.width, h = kernel.height;
  // Below 5 x 5 the border is most of the kernel and says nothing about a background.
  if (w < 5 || h < 5) return kernel;
  std::vector<double> border;
  border.reserve(2 * size_t(w) + 2 * size_t(h));
  for (int x = 0; x < w; ++x) {
    border.push_back(kernel.values[x]);
    border.push_back(kernel.values[size_t(h - 1) * w + x]);
  }
  for (int y = 1; y < h - 1; ++y) {
    border.push_back(kernel.values[size_t(y) * w]);
    border.push_back(kernel.values[size_t(y) * w + w - 1]);
  }
  std::sort(border.begin(), border.end());
  const size_t half = border.size() / 2;  // the ring has an even count
  const double level = (border[half - 1] + border[half]) / 2;
  const double tenth = border[border.size() / 10];
  const auto [smallest, largest] = std::minmax_element(kernel.values.begin(), kernel.values.end());
  const double peak = *largest;
  if (level > peak / 2 && *smallest < level - peak / 2) {
    throw Error(path + ": the kernel looks inverted (dark on light: its border level " +
                Number(level) + " is near its maximum " + Number(peak) +
                "); invert it so the blur is drawn light on black");
  }
  if (level > peak / 50 && level <= peak / 2 && tenth >= level / 2) {
    for (double& v : kernel.values) v = std::max(v - level, 0.0);
    kernel.warnings.push_back(path + ": subtracted the kernel image's background level " +
                              Number(level) + " (the median of its border; its maximum is " +
                              Number(peak) + ")");
  }
  return kernel;
}

std::string LowerExtension(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

}  // namespace

KernelFile ParseKernelText(std::string_view text, const std::string& name) {
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  // A line holding both ';' and ',' writes its numbers with decimal commas between ';'
  // separators, and then so does the whole file.
  bool semicolons = false;
  for (size_t at = 0; !semicolons && at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line =
        text.substr(at, end - at).substr(0, text.substr(at, end - at).find('#'));
    semicolons =
        line.find(';') != std::string_view::npos && line.find(',') != std::string_view::npos;
    at = end + 1;
  }
  const std::string_view separators = semicolons ? " \t\r\v\f;" : " \t\r\v\f,;";
  KernelFile kernel;
  size_t lineNumber = 0, firstRowLine = 0;
  std::string number;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    ++lineNumber;
    line = line.substr(0, line.find('#'));
    size_t count = 0;
    for (size_t at = line.find_first_not_of(separators); at != std::string_view::npos;
         at = line.find_first_not_of(separators, at)) {
      const size_t stop = std::min(line.find_first_of(separators, at), line.size());
      std::string_view token = line.substr(at, stop - at);
      at = stop;
      if (semicolons && token.find(',') != std::string_view::npos) {
        if (token.find(',') != token.rfind(',') || token.find('.') != std::string_view::npos) {
          throw Error(name + ": line " + std::to_string(lineNumber) + ": '" + std::string(token) +
                      "' is ambiguous: with ';' between numbers a ',' is their decimal point, "
                      "so a number may hold one ',' and no '.'");
        }
        number.assign(token);
        number[number.find(',')] = '.';
        token = number;
      }
      // from_chars takes no plus sign.
      if (token.size() > 1 && token[0] == '+' && token[1] != '-') token.remove_prefix(1);
      double v = 0.0;
      const auto [parsed, error] = std::from_chars(token.data(), token.data() + token.size(), v);
      if (error != std::errc() || parsed != token.data() + token.size()) {
        // Cut: a binary file's "token" may run for kilobytes, and a NUL would end the message.
        const std::string shown(token.substr(0, std::min<size_t>(40, token.find('\0'))));
        throw Error(name + ": line " + std::to_string(lineNumber) + ": '" + shown +
                    (shown.size() < token.size() ? "...'" : "'") +
                    (error == std::errc::result_out_of_range ? " is out of a double's range"
                                                             : " is not a number"));
      }
      kernel.values.push_back(v);
      ++count;
    }
    if (count == 0) continue;
    if (kernel.height == 0) {
      kernel.width = static_cast<int>(std::min<size_t>(count, kMaxKernelValues));
      firstRowLine = lineNumber;
    } else if (count != static_cast<size_t>(kernel.width)) {
      throw Error(name + ": line " + std::to_string(lineNumber) + " has " + std::to_string(count) +
                  " values but line " + std::to_string(firstRowLine) + " has " +
                  std::to_string(kernel.width) + "; every row needs the same number");
    }
    if (kernel.values.size() > kMaxKernelValues) {
      throw Error(name + ": more than " + std::to_string(kMaxKernelValues) + " kernel values");
    }
    ++kernel.height;
  }
  CheckValues(kernel, name);
  CheckSum(kernel, name);
  return kernel;
}

KernelFile ParseNpy(std::span<const std::byte> bytes, const std::string& name) {
  const std::string_view b(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (b.size() < 10 || !b.starts_with("\x93NUMPY")) {
    throw Error(name + ": not a NumPy .npy file (no \\x93NUMPY at its start)");
  }
  const int major = static_cast<uint8_t>(b[6]);
  if (major < 1 || major > 3) {
    throw Error(name + ": .npy format version " + std::to_string(major) + " is not supported");
  }
  // Version 1 gives the header length in 2 bytes, versions 2 and 3 in 4.
  const size_t start = major == 1 ? 10 : 12;
  if (b.size() < start) throw Error(name + ": the .npy header is cut short");
  const uint64_t headerLength = Unsigned(b, 8, major == 1 ? 2 : 4);
  if (headerLength > b.size() - start) throw Error(name + ": the .npy header is cut short");
  const NpyHeader header = ReadNpyHeader(b.substr(start, headerLength), name);
  const std::string_view data = b.substr(start + headerLength);

  static constexpr std::string_view kCodes[] = {"f4", "f8", "i1", "i2", "i4", "i8",
                                                "u1", "u2", "u4", "u8", "b1"};
  const std::string_view d = header.descr;
  // '|' (no byte order) is for one-byte types only.
  const bool known =
      d.size() == 3 && (d[0] == '<' || d[0] == '>' || (d[0] == '|' && d[2] == '1')) &&
      std::find(std::begin(kCodes), std::end(kCodes), d.substr(1)) != std::end(kCodes);
  if (!known) {
    throw Error(name + ": .npy dtype '" + header.descr +
                "' is not supported (f4, f8, i1 to i8, u1 to u8 or b1 in either byte order)");
  }
  const char kind = d[1];
  const int size = d[2] - '0';
  const bool bigEndian = d[0] == '>';
  if (header.shape.size() != 2) {
    throw Error(name + ": the .npy array has " + std::to_string(header.shape.size()) +
                " dimensions; a kernel needs 2 (rows, columns)");
  }
  const uint64_t rows = header.shape[0], columns = header.shape[1];
  if (rows == 0 || columns == 0) throw Error(name + ": the kernel holds no values");
  // Each dimension is at most kMaxKernelValues (2^28), so the product cannot overflow.
  if (rows * columns > kMaxKernelValues) {
    throw Error(name + ": a " + std::to_string(columns) + " x " + std::to_string(rows) +
                " kernel is larger than " + std::to_string(kMaxKernelValues) + " values");
  }
  const uint64_t needed = rows * columns * static_cast<uint64_t>(size);
  if (data.size() != needed) {
    throw Error(name + ": the .npy data is " + std::to_string(data.size()) +
                " bytes where its shape and dtype need " + std::to_string(needed) +
                (data.size() < needed ? " (cut short)" : ""));
  }

  KernelFile kernel;
  kernel.width = static_cast<int>(columns);
  kernel.height = static_cast<int>(rows);
  kernel.values.resize(rows * columns);
  for (uint64_t i = 0; i < rows * columns; ++i) {
    const uint64_t raw = Unsigned(data, i * size, size, bigEndian);
    double v;
    if (kind == 'f') {
      v = size == 4 ? std::bit_cast<float>(static_cast<uint32_t>(raw)) : std::bit_cast<double>(raw);
    } else if (kind == 'i') {
      const int shift = 64 - 8 * size;  // sign-extends from the sample's width
      v = static_cast<double>(static_cast<int64_t>(raw << shift) >> shift);
    } else {
      v = kind == 'b' ? (raw != 0) : static_cast<double>(raw);
    }
    // Fortran order stores column by column.
    const uint64_t row = header.fortranOrder ? i % rows : i / columns;
    const uint64_t column = header.fortranOrder ? i / rows : i % columns;
    kernel.values[row * columns + column] = v;
  }
  CheckValues(kernel, name);
  CheckSum(kernel, name);
  return kernel;
}

KernelFile ReadKernelFile(const std::string& path) {
  const std::string extension = LowerExtension(path);
  const bool npy = extension == ".npy";
  const bool text =
      extension == ".txt" || extension == ".csv" || extension == ".dat" || extension == ".asc";
  if (!npy && !text) {
    // A multi-page TIFF is a 3-D PSF: never its first plane alone.
    LoadedStack stack = ReadImageStack(path);
    if (stack.pages.size() > 1)
      throw Error(path + ": a 3-D PSF of " + std::to_string(stack.pages.size()) +
                  " planes (a multi-page TIFF); stacks are restored plane by plane with a 2-D "
                  "PSF (give its in-focus plane)");
    KernelFile kernel = KernelFromImage(std::move(stack.pages.front()), path);
    CheckSum(kernel, path);
    return kernel;
  }
  std::string bytes, error;
  if (!ReadWholeFile(path, bytes, error)) throw Error(error);
  if (text) return ParseKernelText(bytes, path);
  return ParseNpy(std::as_bytes(std::span(bytes.data(), bytes.size())), path);
}

std::string OffCentreWarning(const KernelFile& kernel, const std::string& name) {
  double sum = 0.0, x = 0.0, y = 0.0;
  for (int row = 0; row < kernel.height; ++row)
    for (int column = 0; column < kernel.width; ++column) {
      const double v = kernel.values[static_cast<size_t>(row) * kernel.width + column];
      sum += v;
      x += v * column;
      y += v * row;
    }
  if (!(sum > 0.0)) return "";
  const double dx = x / sum - kernel.width / 2, dy = y / sum - kernel.height / 2;
  if (std::hypot(dx, dy) <= 1.0) return "";
  char offset[96];
  std::snprintf(offset, sizeof offset, "%.1f samples %s and %.1f %s", std::abs(dx),
                dx < 0 ? "left" : "right", std::abs(dy), dy < 0 ? "up" : "down");
  return name + ": the kernel's centroid lies " + offset + " of its centre sample (column " +
         std::to_string(kernel.width / 2) + ", row " + std::to_string(kernel.height / 2) +
         "), the origin in use: the result is shifted by as much; --kernel-origin support "
         "centres the kernel's drawn support instead";
}

void WriteKernelFile(const std::string& path, std::span<const double> values, int width,
                     int height) {
  const std::string extension = LowerExtension(path);
  double peak = 0.0;
  for (double v : values) peak = std::max(peak, v);
  if (extension == ".npy") {
    std::string header = "{'descr': '<f8', 'fortran_order': False, 'shape': (" +
                         std::to_string(height) + ", " + std::to_string(width) + "), }";
    header.append(63 - (10 + header.size()) % 64, ' ') += '\n';
    std::string bytes = "\x93NUMPY\x01";
    bytes += '\0';
    bytes += static_cast<char>(header.size() & 0xff);
    bytes += static_cast<char>(header.size() >> 8);
    bytes += header;
    for (double v : values)
      for (int i = 0; i < 8; ++i) bytes += static_cast<char>(std::bit_cast<uint64_t>(v) >> (8 * i));
    std::string error;
    if (!WriteFileAtomically(path, bytes, error)) throw Error(error);
    return;
  }
  const bool tiff = extension == ".tif" || extension == ".tiff";
  if (!tiff && extension != ".png") {
    throw Error(path + ": a kernel is written as .npy, .tif (floating point) or .png");
  }
  LoadedImage image;
  image.width = width;
  image.height = height;
  image.colourChannels = 1;
  image.depth = tiff ? SampleDepth::kFloat : SampleDepth::k16;
  image.planes.assign(values.begin(), values.end());
  // A PNG holds [0, 1]: the peak is drawn white (a kernel is normalised when read).
  if (!tiff && peak > 0.0)
    for (double& v : image.planes) v /= peak;
  WriteImageFile(path, image, image.depth, 95);
}

}  // namespace marlith
