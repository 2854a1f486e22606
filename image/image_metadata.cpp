#include "image/image_metadata.h"

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>

#include "marlith/error.hpp"

namespace marlith {
namespace {

constexpr std::string_view kApp1ExifHeader("Exif\0\0", 6);
constexpr uint16_t kOrientationTag = 0x0112;
constexpr uint16_t kTiffShort = 3;

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

std::string InsertPngChunkAfterHeader(std::string_view png, std::string_view type,
                                      std::string_view data) {
  constexpr size_t kAfterHeader = 8 + 12 + 13;  // signature, IHDR chunk
  if (png.size() < kAfterHeader || png.substr(12, 4) != "IHDR" || BigEndian32(png, 8) != 13) {
    throw Error("cannot add a " + std::string(type) + " chunk: the PNG stream has no header");
  }
  // InsertPngChunk puts it before the first IDAT: here the "IDAT" is the rest of the stream.
  std::string head(png.substr(0, kAfterHeader));
  std::string withChunk =
      InsertPngChunk(head + std::string("\0\0\0\0IDAT\0\0\0\0", 12), type, data);
  withChunk.resize(withChunk.size() - 12);
  return withChunk.append(png.substr(kAfterHeader));
}

bool WithoutPngTextChunks(std::string_view png, std::string& out) {
  auto isText = [](std::string_view type) {
    return type == "tEXt" || type == "zTXt" || type == "iTXt" || type == "iCCP";
  };
  // Calls keep(chunk bytes) for each whole chunk that is kept and for a damaged rest as it is;
  // returns whether any was left out.
  auto walk = [&](auto&& keep) {
    bool dropped = false;
    size_t at = 8;
    while (at < png.size()) {
      const size_t length = png.size() - at >= 12 ? BigEndian32(png, at) : SIZE_MAX;
      if (length > png.size() - at - 12) {
        keep(png.substr(at));
        break;
      }
      if (isText(png.substr(at + 4, 4))) {
        dropped = true;
      } else {
        keep(png.substr(at, 12 + length));
      }
      at += 12 + length;
    }
    return dropped;
  };
  if (png.size() < 8 || !walk([](std::string_view) {})) return false;
  out.assign(png.substr(0, 8));
  walk([&](std::string_view chunk) { out.append(chunk); });
  return true;
}

bool InflateBounded(std::string_view compressed, size_t limit, std::string& out) {
  z_stream z{};
  if (inflateInit(&z) != Z_OK) return false;
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  z.avail_in = static_cast<uInt>(std::min<size_t>(compressed.size(), UINT32_MAX));
  out.clear();
  int status = Z_OK;
  char buffer[1 << 16];
  while (status == Z_OK) {
    z.next_out = reinterpret_cast<Bytef*>(buffer);
    z.avail_out = sizeof buffer;
    status = inflate(&z, Z_NO_FLUSH);
    const size_t produced = sizeof buffer - z.avail_out;
    if (out.size() + produced > limit) status = Z_MEM_ERROR;
    if (status == Z_OK || status == Z_STREAM_END) out.append(buffer, produced);
    if (status == Z_OK && produced == 0 && z.avail_in == 0) status = Z_DATA_ERROR;  // cut short
  }
  inflateEnd(&z);
  if (status != Z_STREAM_END) out.clear();
  return status == Z_STREAM_END;
}

std::string ProfileFromIccpChunk(std::string_view chunk) {
  // A name of 1 to 79 characters, its terminating 0, the compression method (0: zlib).
  const size_t nameEnd = chunk.find('\0');
  if (nameEnd == std::string_view::npos || nameEnd < 1 || nameEnd > 79 ||
      nameEnd + 2 > chunk.size() || chunk[nameEnd + 1] != 0) {
    return "";
  }
  std::string profile;
  InflateBounded(chunk.substr(nameEnd + 2), kMaxMetadataBytes, profile);
  return profile;
}

std::string IccpChunk(std::string_view profile) {
  uLongf size = compressBound(static_cast<uLong>(profile.size()));
  std::string out("ICC Profile\0\0", 13);
  const size_t header = out.size();
  out.resize(header + size);
  if (compress2(reinterpret_cast<Bytef*>(out.data() + header), &size,
                reinterpret_cast<const Bytef*>(profile.data()), static_cast<uLong>(profile.size()),
                Z_BEST_COMPRESSION) != Z_OK) {
    throw Error("cannot compress the ICC profile");
  }
  out.resize(header + size);
  return out;
}

namespace {
constexpr std::string_view kXmpKeyword("XML:com.adobe.xmp\0", 18);
}  // namespace

std::string XmpFromPng(std::string_view png) {
  size_t at = 8;
  while (png.size() >= 12 && at <= png.size() - 12) {
    const size_t length = BigEndian32(png, at);
    if (length > png.size() - at - 12) return "";
    const std::string_view type = png.substr(at + 4, 4), data = png.substr(at + 8, length);
    if (type == "IEND") return "";
    at += 12 + length;
    if (type != "iTXt" || !data.starts_with(kXmpKeyword)) continue;
    // Compression flag and method, then the language tag and the translated keyword, each
    // ending in 0, then the text.
    const size_t flags = kXmpKeyword.size();
    if (data.size() < flags + 2) return "";
    const size_t language = data.find('\0', flags + 2);
    const size_t translated =
        language == std::string_view::npos ? language : data.find('\0', language + 1);
    if (translated == std::string_view::npos) return "";
    const std::string_view text = data.substr(translated + 1);
    if (data[flags] == 0) return text.size() <= kMaxMetadataBytes ? std::string(text) : "";
    std::string xmp;
    InflateBounded(text, kMaxMetadataBytes, xmp);
    return xmp;
  }
  return "";
}

std::string XmpItxtChunk(std::string_view xmp) {
  // Uncompressed, no language tag, no translated keyword.
  return std::string(kXmpKeyword) + std::string("\0\0\0\0", 4) + std::string(xmp);
}

// Each resource: "8BIM", a 2-byte ID, a Pascal-string name padded to an even length, a 4-byte
// data size and the data padded to an even length; all big-endian.
std::string PhotoshopResource(std::string_view resources, uint16_t wanted) {
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
    if (id == wanted) return std::string(resources.substr(at, size));
    at += (size + 1) & ~size_t{1};
  }
  return "";
}

std::string PhotoshopResourceBlock(uint16_t id, std::string_view data) {
  std::string out("8BIM");
  out += static_cast<char>(id >> 8);
  out += static_cast<char>(id & 0xff);
  out.append(2, '\0');  // empty name, padded to two bytes
  AppendBigEndian32(out, static_cast<uint32_t>(data.size()));
  out.append(data);
  if (data.size() % 2) out += '\0';
  return out;
}

namespace {

constexpr uint16_t kExifDirectoryTag = 34665;

// Bytes of one element of a TIFF field type (a RATIONAL is two LONGs, swapped as such), 0 for
// an unknown type.
size_t ElementBytes(uint16_t type) {
  static constexpr uint8_t kBytes[] = {0, 1, 1, 2, 4, 4, 1, 1, 2, 4, 4, 4, 8, 4};
  return type < std::size(kBytes) ? kBytes[type] : 0;
}
size_t ValueBytes(const TiffEntry& e) {
  const size_t rational = e.type == 5 || e.type == 10 ? 2 : 1;
  return ElementBytes(e.type) * rational * e.count;
}

// The entries of the directory at offset, values little-endian; nothing when it is malformed.
std::vector<TiffEntry> ReadDirectory(const ExifReader& r, size_t offset) {
  const std::string_view b = r.b;
  std::vector<TiffEntry> entries;
  if (offset < 8 || offset > b.size() - 2) return entries;
  const size_t count = r.Get(offset, 2);
  if (count > (b.size() - offset - 2) / 12) return entries;
  for (size_t i = 0; i < count; ++i) {
    const size_t at = offset + 2 + 12 * i;
    TiffEntry e{static_cast<uint16_t>(r.Get(at, 2)), static_cast<uint16_t>(r.Get(at + 2, 2)),
                r.Get(at + 4, 4), ""};
    const size_t element = ElementBytes(e.type);
    if (element == 0 || e.count > b.size()) continue;  // unknown type, or more than the block
    const size_t bytes = ValueBytes(e);
    const size_t where = bytes <= 4 ? at + 8 : r.Get(at + 8, 4);
    if (where > b.size() || bytes > b.size() - where) continue;
    e.value.assign(b.substr(where, bytes));
    if (r.bigEndian) {
      for (size_t k = 0; k + element <= bytes; k += element)
        std::reverse(e.value.begin() + k, e.value.begin() + k + element);
    }
    entries.push_back(std::move(e));
  }
  return entries;
}

void AppendLittle(std::string& out, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(v >> (8 * i));
}

}  // namespace

bool IsCameraTag(uint16_t tag) {
  // ImageDescription, Make, Model, Software, DateTime, Artist, Copyright.
  return tag == 270 || tag == 271 || tag == 272 || tag == 305 || tag == 306 || tag == 315 ||
         tag == 33432;
}

ExifContents ReadExifContents(std::string_view block) {
  ExifContents out;
  if (block.size() < 8) return out;
  const std::string_view order = block.substr(0, 2);
  if (order != "II" && order != "MM") return out;
  const ExifReader r{block, order == "MM"};
  if (r.Get(2, 2) != 42) return out;
  for (TiffEntry& e : ReadDirectory(r, r.Get(4, 4))) {
    if (e.tag == kExifDirectoryTag && e.value.size() == 4) {
      const size_t exifAt = ExifReader{e.value, false}.Get(0, 4);
      for (TiffEntry& x : ReadDirectory(r, exifAt)) {
        // Pointers to further directories (interoperability, 40965) lose their target.
        if (x.tag != 40965 && x.type != 13) out.exif.push_back(std::move(x));
      }
    } else if (IsCameraTag(e.tag)) {
      out.camera.push_back(std::move(e));
    }
  }
  return out;
}

std::string TiffDirectory(const std::vector<TiffEntry>& entries, uint32_t at) {
  std::vector<const TiffEntry*> sorted;
  for (const TiffEntry& e : entries) sorted.push_back(&e);
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const TiffEntry* a, const TiffEntry* b) { return a->tag < b->tag; });
  std::string directory, values;
  const uint32_t valuesAt = at + 2 + 12 * static_cast<uint32_t>(sorted.size()) + 4;
  AppendLittle(directory, static_cast<uint32_t>(sorted.size()), 2);
  for (const TiffEntry* e : sorted) {
    AppendLittle(directory, e->tag, 2);
    AppendLittle(directory, e->type, 2);
    AppendLittle(directory, e->count, 4);
    if (e->value.size() <= 4) {
      directory += e->value;
      directory.append(4 - e->value.size(), '\0');
    } else {
      AppendLittle(directory, valuesAt + static_cast<uint32_t>(values.size()), 4);
      values += e->value;
      if (values.size() % 2) values += '\0';  // values start on word boundaries
    }
  }
  AppendLittle(directory, 0, 4);
  return directory + values;
}

std::string ExifBlock(const ExifContents& contents) {
  if (contents.camera.empty() && contents.exif.empty()) return "";
  std::vector<TiffEntry> first = contents.camera;
  // The first directory's size does not depend on the EXIF directory's offset: lay it out once
  // with a placeholder to learn where the EXIF directory goes.
  if (!contents.exif.empty()) first.push_back({kExifDirectoryTag, 4, 1, std::string(4, '\0')});
  std::string block("II*\0\x08\0\0\0", 8);
  std::string directory = TiffDirectory(first, 8);
  if (directory.size() % 2) directory += '\0';
  block += directory;
  if (!contents.exif.empty()) {
    const uint32_t exifAt = static_cast<uint32_t>(block.size());
    block += TiffDirectory(contents.exif, exifAt);
    PatchTiffLong(block, kExifDirectoryTag, exifAt);
  }
  return block;
}

bool PatchTiffLong(std::string& tiff, uint16_t tag, uint32_t value) {
  if (tiff.size() < 8 || !std::string_view(tiff).starts_with(std::string_view("II*\0", 4)))
    return false;
  const ExifReader r{tiff, false};
  const size_t directory = r.Get(4, 4);
  if (directory > tiff.size() - 2) return false;
  const size_t count = r.Get(directory, 2);
  for (size_t i = 0; i < count && directory + 2 + 12 * (i + 1) <= tiff.size(); ++i) {
    const size_t at = directory + 2 + 12 * i;
    if (r.Get(at, 2) != tag) continue;
    std::string v;
    AppendLittle(v, value, 4);
    tiff.replace(at + 8, 4, v);
    return true;
  }
  return false;
}

}  // namespace marlith
