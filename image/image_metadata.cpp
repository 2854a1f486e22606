#include "image/image_metadata.h"

#include <zlib.h>

#include <cstdint>
#include <optional>

#include "marlith/error.hpp"

namespace marlith {
namespace {

constexpr std::string_view kApp1ExifHeader("Exif\0\0", 6);
constexpr uint16_t kOrientationTag = 0x0112;
constexpr uint16_t kTiffShort = 3;
constexpr uint16_t kPhotoshopExifResource = 1058;

uint32_t BigEndian32(std::string_view b, size_t at) {
  return uint32_t{static_cast<uint8_t>(b[at])} << 24 |
         uint32_t{static_cast<uint8_t>(b[at + 1])} << 16 |
         uint32_t{static_cast<uint8_t>(b[at + 2])} << 8 | uint32_t{static_cast<uint8_t>(b[at + 3])};
}

void AppendBigEndian32(std::string& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>(v >> shift);
}

// Reads 16- and 32-bit fields of an EXIF block in its own byte order.
struct ExifReader {
  std::string_view b;
  bool bigEndian;
  uint32_t Get(size_t at, int bytes) const {
    uint32_t v = 0;
    for (int i = 0; i < bytes; ++i) {
      const uint32_t byte = static_cast<uint8_t>(b[at + (bigEndian ? i : bytes - 1 - i)]);
      v = v << 8 | byte;
    }
    return v;
  }
};

// Offset of the 2-byte value of the first directory's orientation entry, when it is one SHORT.
std::optional<size_t> OrientationValueOffset(std::string_view exif) {
  if (exif.size() < 8) return std::nullopt;
  const std::string_view order = exif.substr(0, 2);
  if (order != "II" && order != "MM") return std::nullopt;
  const ExifReader r{exif, order == "MM"};
  if (r.Get(2, 2) != 42) return std::nullopt;
  const size_t directory = r.Get(4, 4);
  if (directory > exif.size() - 2) return std::nullopt;
  const size_t entries = r.Get(directory, 2);
  for (size_t i = 0; i < entries; ++i) {
    const size_t entry = directory + 2 + 12 * i;
    if (entry > exif.size() - 12) return std::nullopt;
    if (r.Get(entry, 2) != kOrientationTag) continue;
    if (r.Get(entry + 2, 2) != kTiffShort || r.Get(entry + 4, 4) != 1) return std::nullopt;
    return entry + 8;
  }
  return std::nullopt;
}

}  // namespace

std::string ExifFromApp1(std::string_view block) {
  if (block.starts_with(kApp1ExifHeader)) block.remove_prefix(kApp1ExifHeader.size());
  return std::string(block);
}

std::string ExifToApp1(std::string_view exif) {
  return std::string(kApp1ExifHeader) + std::string(exif);
}

int ExifOrientation(std::string_view exif) {
  const std::optional<size_t> at = OrientationValueOffset(exif);
  if (!at) return 0;
  const uint32_t v = ExifReader{exif, exif[0] == 'M'}.Get(*at, 2);
  return v >= 1 && v <= 8 ? static_cast<int>(v) : 0;
}

void NeutraliseExifOrientation(std::string& exif) {
  const std::optional<size_t> at = OrientationValueOffset(exif);
  if (!at) return;
  const bool bigEndian = exif[0] == 'M';
  exif[*at] = bigEndian ? 0 : 1;
  exif[*at + 1] = bigEndian ? 1 : 0;
}

std::string FindPngChunk(std::string_view png, std::string_view type) {
  constexpr size_t kSignature = 8;
  size_t at = kSignature;
  while (png.size() >= 12 && at <= png.size() - 12) {
    const size_t length = BigEndian32(png, at);
    if (length > png.size() - at - 12) return "";
    const std::string_view chunkType = png.substr(at + 4, 4);
    if (chunkType == type) return std::string(png.substr(at + 8, length));
    if (chunkType == "IEND") return "";
    at += 12 + length;
  }
  return "";
}

std::string InsertPngChunk(std::string_view png, std::string_view type, std::string_view data) {
  size_t at = 8;
  while (png.size() >= 12 && at <= png.size() - 12 && png.substr(at + 4, 4) != "IDAT") {
    const size_t length = BigEndian32(png, at);
    if (length > png.size() - at - 12) break;
    at += 12 + length;
  }
  if (png.size() < 12 || at > png.size() - 12 || png.substr(at + 4, 4) != "IDAT") {
    throw Error("cannot add a " + std::string(type) + " chunk: the PNG stream has no image data");
  }
  std::string chunk;
  AppendBigEndian32(chunk, static_cast<uint32_t>(data.size()));
  chunk.append(type).append(data);
  // The CRC covers the type and the data, not the length.
  const uLong crc = crc32(crc32(0, nullptr, 0), reinterpret_cast<const Bytef*>(chunk.data() + 4),
                          static_cast<uInt>(chunk.size() - 4));
  AppendBigEndian32(chunk, static_cast<uint32_t>(crc));
  std::string out(png.substr(0, at));
  out += chunk;
  out.append(png.substr(at));
  return out;
}

// Each resource: "8BIM", a 2-byte ID, a Pascal-string name padded to an even length, a 4-byte
// data size and the data padded to an even length; all big-endian.
std::string ExifFromPhotoshopResources(std::string_view resources) {
  size_t at = 0;
  while (at + 7 <= resources.size() && resources.substr(at, 4) == "8BIM") {
    const unsigned id =
        static_cast<uint8_t>(resources[at + 4]) << 8 | static_cast<uint8_t>(resources[at + 5]);
    const size_t nameField = (1 + static_cast<uint8_t>(resources[at + 6]) + 1) & ~size_t{1};
    at += 6 + nameField;
    if (at + 4 > resources.size()) return "";
    const size_t size = BigEndian32(resources, at);
    at += 4;
    if (size > resources.size() - at) return "";
    if (id == kPhotoshopExifResource) return std::string(resources.substr(at, size));
    at += (size + 1) & ~size_t{1};
  }
  return "";
}

std::string PhotoshopResourcesWithExif(std::string_view exif) {
  std::string out("8BIM");
  out += static_cast<char>(kPhotoshopExifResource >> 8);
  out += static_cast<char>(kPhotoshopExifResource & 0xff);
  out.append(2, '\0');  // empty name, padded to two bytes
  AppendBigEndian32(out, static_cast<uint32_t>(exif.size()));
  out.append(exif);
  if (exif.size() % 2) out += '\0';
  return out;
}

}  // namespace marlith
