// The metadata blocks the image readers and writers carry by hand, where GraphicsMagick does not:
// EXIF orientation, PNG chunks and Photoshop image resources. Private to image/. Every parser
// here takes untrusted bytes: it checks each offset against the size and gives up quietly (an
// empty result) on anything malformed, since metadata never decides whether an image loads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace marlith {

// EXIF blocks are held as the bare TIFF structure that starts with "II" or "MM", as PNG's eXIf
// chunk, WebP's EXIF chunk and Photoshop's EXIF resource hold them. JPEG's APP1 segment puts
// "Exif\0\0" in front: ExifFromApp1 removes it (and leaves other blocks alone), ExifToApp1
// adds it.
std::string ExifFromApp1(std::string_view block);
std::string ExifToApp1(std::string_view exif);

// The orientation tag (0x0112) of the first image directory: 1 to 8, or 0 when the block has
// none or it cannot be read.
int ExifOrientation(std::string_view exif);

// Sets the orientation tag of the first image directory to 1 (upright) in place, keeping every
// other byte; a block without a readable orientation tag is left as it is.
void NeutraliseExifOrientation(std::string& exif);

// The data of the first chunk of the 4-letter type in a PNG stream, or "" when there is none
// (or the stream is malformed before it).
std::string FindPngChunk(std::string_view png, std::string_view type);

// The PNG stream with a chunk of the given type and data inserted before its first IDAT chunk
// (where eXIf must be). Throws marlith::Error when the stream has no IDAT chunk.
std::string InsertPngChunk(std::string_view png, std::string_view type, std::string_view data);

// png with a chunk of the given type and data inserted right after its IHDR chunk, where iCCP
// must be (before PLTE and IDAT). Throws marlith::Error when the stream does not start with
// IHDR.
std::string InsertPngChunkAfterHeader(std::string_view png, std::string_view type,
                                      std::string_view data);

// The PNG chunks whose data is text or a compressed profile: tEXt, zTXt, iTXt and iCCP. A
// decoder that inflates them whole can be made to take gigabytes by a small file, so the
// readers hand the decoder a copy without them (and find what they need in them with the
// bounded functions below). Returns false, leaving out alone, when png holds none of them.
bool WithoutPngTextChunks(std::string_view png, std::string& out);

// Largest inflated size of a compressed profile or text the readers keep: no real ICC profile
// or XMP packet comes near it; anything larger is ignored instead of inflated.
inline constexpr size_t kMaxMetadataBytes = 32 << 20;

// zlib-compressed data inflated, or nothing when it is malformed or would inflate to more than
// limit bytes (inflating stops there: the time and memory are bounded by limit).
bool InflateBounded(std::string_view compressed, size_t limit, std::string& out);

// The profile of an iCCP chunk's data (name, 0, method 0, zlib data); "" when malformed or
// larger than kMaxMetadataBytes. And the data of an iCCP chunk holding profile.
std::string ProfileFromIccpChunk(std::string_view chunk);
std::string IccpChunk(std::string_view profile);

// The XMP packet of a PNG stream (its iTXt chunk "XML:com.adobe.xmp", compressed or not), "" when
// none or larger than kMaxMetadataBytes. And the iTXt chunk data holding xmp, uncompressed as
// the XMP specification asks.
std::string XmpFromPng(std::string_view png);
std::string XmpItxtChunk(std::string_view xmp);

// Photoshop image resource blocks (TIFF tag 34377, JPEG APP13 after "Photoshop 3.0\0"): the data
// of the resource with the given ID (1058 EXIF, 1028 IPTC-IIM) of a block list, or "" when there
// is none; and a block list holding data as that one resource.
inline constexpr uint16_t kPhotoshopIptcResource = 1028;
inline constexpr uint16_t kPhotoshopExifResource = 1058;
std::string PhotoshopResource(std::string_view resources, uint16_t id);
std::string PhotoshopResourceBlock(uint16_t id, std::string_view data);
inline std::string ExifFromPhotoshopResources(std::string_view resources) {
  return PhotoshopResource(resources, kPhotoshopExifResource);
}
inline std::string PhotoshopResourcesWithExif(std::string_view exif) {
  return PhotoshopResourceBlock(kPhotoshopExifResource, exif);
}

// One entry of a TIFF directory (an EXIF block's or a TIFF file's), its value bytes in
// little-endian order whatever the source's order: count elements of the type's size.
struct TiffEntry {
  uint16_t tag = 0, type = 0;
  uint32_t count = 0;
  std::string value;
};

// The tags of a TIFF file's first directory that describe the camera and the picture rather
// than the pixels, carried between files: ImageDescription, Make, Model, Software, DateTime,
// Artist, Copyright.
bool IsCameraTag(uint16_t tag);

// What an EXIF block (or a classic TIFF file, which has the same structure) says: the camera
// tags of its first directory and every entry of its EXIF directory (tag 34665) but the
// pointers to further directories, whose offsets would not survive the move. Empty parts for a
// malformed block.
struct ExifContents {
  std::vector<TiffEntry> camera;
  std::vector<TiffEntry> exif;
};
ExifContents ReadExifContents(std::string_view block);

// An EXIF block ("II") holding contents: the camera tags in its first directory, the EXIF
// directory behind tag 34665. "" when contents is empty.
std::string ExifBlock(const ExifContents& contents);

// The bytes of a little-endian TIFF directory of entries that starts at file offset at (even),
// values that do not fit in an entry following it; its next-directory offset is 0.
std::string TiffDirectory(const std::vector<TiffEntry>& entries, uint32_t at);

// Sets the value of the first directory's entry for tag, a LONG or IFD, of a little-endian
// classic TIFF file; false when there is no such entry.
bool PatchTiffLong(std::string& tiff, uint16_t tag, uint32_t value);

}  // namespace marlith
