// Image files in and out as planes of doubles, keeping what the file holds: grey or colour,
// alpha, 8 or 16 bits or floating point, the ICC profile and EXIF. For the marlith-deblur command
// line; the frozen six-argument command keeps its own loader (image/image_container.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/stack_axes.h"

namespace marlith {

// Largest image (width x height) the readers accept, checked from the file header before the
// pixels are decoded.
inline constexpr int64_t kMaxImagePixels = 256LL * 1024 * 1024;

// How a file stores its samples.
enum class SampleDepth { k8, k16, kFloat };

// The chunks of a PNG file that say how its samples encode light, each its raw data, empty when
// the file has none (an iCCP chunk's profile is LoadedImage::iccProfile). A PNG file written
// from the image carries them as they are: its samples are encoded with the same curve.
struct PngLightChunks {
  std::string gama;  // gAMA: 4 bytes, big-endian, the encoding exponent times 100000
  std::string srgb;  // sRGB: 1 byte, the rendering intent
  std::string cicp;  // cICP: 4 bytes: primaries, transfer function, matrix, full range
};

// An image as read from a file, or to be written to one.
struct LoadedImage {
  int width = 0, height = 0;
  int colourChannels = 0;  // 1 (grey) or 3 (RGB)
  bool hasAlpha = false;
  // Planar, row-major, row 0 at the top: the colour planes, then the alpha plane when hasAlpha
  // (0 transparent, 1 opaque; colour not premultiplied). Integer samples on the [0, 1] scale
  // (8-bit / 255, 16-bit / 65535); floating-point samples as stored, unclipped.
  std::vector<double> planes;
  SampleDepth depth = SampleDepth::k8;
  std::string iccProfile;  // the raw profile, empty when none
  // The raw EXIF block as the bare TIFF structure starting "II" or "MM" (no "Exif\0\0" in
  // front), empty when none. A TIFF file's own camera tags and EXIF directory are read into one
  // (see ExifBlock in image_metadata.h) when it holds no EXIF block of its own.
  std::string exif;
  PngLightChunks pngLight;  // PNG files only
  std::string xmp;          // the XMP packet (XML), empty when none
  std::string iptc;  // IPTC-IIM records, as TIFF tag 33723 and Photoshop resource 1028 hold them
  // What reading passed over that the user may want to know, one line each naming the file
  // (metadata too large to keep, say).
  std::vector<std::string> warnings;
};

// The image file types marlith writes, named by the file's extension.
enum class ImageFileType { kUnknown, kPng, kJpeg, kTiff, kBmp, kWebp, kPgm, kPpm, kPnm };

// The type named by path's extension, in any letter case: .png, .jpg/.jpeg, .tif/.tiff, .bmp,
// .webp, .pgm, .ppm, .pnm; kUnknown for anything else (and for no extension).
ImageFileType ImageFileTypeFromPath(const std::string& path);

// The type's usual name for messages ("PNG", "JPEG", ...; "unknown").
const char* ImageFileTypeName(ImageFileType type);
// "8-bit", "16-bit" or "floating-point", for messages.
const char* SampleDepthWords(SampleDepth depth);

// Whether WriteImageFile writes samples of this depth to this type: 8 bits to every type, 16
// bits to PNG, TIFF and PGM/PPM/PNM, floating point to TIFF only. A depth the type cannot hold
// is refused, never narrowed silently: JPEG, BMP and WebP take 8 bits only.
bool ImageFileTypeHolds(ImageFileType type, SampleDepth depth);

// Reads the image file at path (the format is taken from the content, not the name): TIFF with
// libtiff, PNG with libspng, the rest with GraphicsMagick.
// - Grey files (grey PNG, PGM, grey JPEG or TIFF, palette images whose colours are all grey)
//   give one colour channel; others three. Alpha (grey+alpha, RGBA, palette transparency, a
//   TIFF extra sample marked as alpha) gives hasAlpha.
// - depth: kFloat for floating-point TIFF (16-, 32- and 64-bit, at full precision) and for
//   32-bit unsigned and signed integer TIFF (divided by the type's largest value: [0, 1] and
//   [-1, 1]); k16 for files stored above 8 bits, else k8. TIFF sample types and colour spaces
//   are listed at TiffContents (tiff_file.h); CIE L*a*b*, other sample sizes and unmarked extra
//   samples are refused.
// - CMYK is converted to RGB as (1 - C)(1 - K) and so on; its ICC profile, which describes the
//   CMYK, is then dropped.
// - The EXIF orientation (for TIFF the file's orientation tag) is applied, so the pixels come
//   back upright, and the returned EXIF block says orientation 1.
// - EXIF is read from JPEG and WebP, from PNG's eXIf chunk and from a TIFF's Photoshop EXIF
//   resource, or else its own camera tags and EXIF directory; XMP from JPEG, WebP, PNG's iTXt
//   chunk and TIFF tag 700; IPTC from JPEG (APP13) and TIFF (tag 33723).
// Throws marlith::Error, one line naming path and the reason, when path is missing, a
// directory, empty, unreadable, corrupt or truncated, claims more than 268,435,456 pixels
// (refused from the header before any pixel memory is taken), or is a TIFF the table refuses.
LoadedImage ReadImageFile(const std::string& path);

// What WriteImageFile(path, image, ...) leaves out that the user should be told of, one line
// each naming path: an alpha channel written to JPEG or PGM/PPM/PNM, which cannot hold it.
std::vector<std::string> OutputWarnings(const std::string& path, const LoadedImage& image);

// A stack of images of one size and kind: a multi-page TIFF, ImageJ hyperstack or OME-TIFF
// (every page), or any other image file (one page).
struct LoadedStack {
  std::vector<LoadedImage> pages;  // in the file's order; metadata and warnings on the first
  StackAxes axes;                  // Z, C, T and voxel size (see ReadStackAxes)
  std::string description;         // the first page's ImageDescription of a TIFF of several pages
  double xResolution = 0.0, yResolution = 0.0;  // pixels per resolution unit, 0 when not given
  int resolutionUnit = 1;
};

// Reads path as ReadImageFile does, every page of a TIFF of several pages (each turned upright
// by its orientation). Throws marlith::Error naming path as ReadImageFile does, also for pages
// of different sizes, colours or depths, and for stacks of more than kMaxImagePixels pixels
// in all.
LoadedStack ReadImageStack(const std::string& path);

// Writes a stack of one page as WriteImageFile does; of several pages as a TIFF of as many
// pages with the stack's description and resolution (its axes and voxel size), refusing other
// types naming path.
void WriteImageStack(const std::string& path, const LoadedStack& stack, SampleDepth depth,
                     int jpegQuality);

// Checks, before a long run, that an image can be written to path: its extension names a type
// this build writes (WebP needs a GraphicsMagick with WebP), it is not a directory, and its
// folder exists and is writable. Throws marlith::Error saying which check failed.
void CheckOutputPath(const std::string& path);

// Writes image to path as the type its extension names, samples at the given depth:
// - Integer depths round and clip to [0, 1] first (NaN as 0); floats are written unclipped.
// - Grey stays grey (PGM takes grey only; PPM writes grey as three equal channels; PNM picks
//   PGM or PPM). Alpha is written to PNG, TIFF, WebP and BMP; JPEG and PGM/PPM/PNM cannot hold
//   it and it is left out.
// - The ICC profile is kept by PNG (iCCP), JPEG, TIFF and WebP; EXIF by PNG (eXIf chunk), JPEG
//   (APP1), WebP and TIFF (Photoshop's EXIF resource, which exiftool and Photoshop read, and
//   its camera tags and EXIF directory as the file's own), all as given; XMP by PNG (iTXt),
//   JPEG (APP1), TIFF (tag 700) and WebP; IPTC by JPEG (APP13) and TIFF (tag 33723).
// - jpegQuality (1 to 100) sets JPEG's and WebP's quality and is checked whatever the type.
// The file is written to a temporary file in path's folder and renamed over path only when
// complete: on failure nothing is left behind and an existing file at path is untouched.
// Throws marlith::Error naming path when the type is unknown, cannot hold depth (see
// ImageFileTypeHolds), image is inconsistent (sizes, channel count, planes' length), or
// encoding or writing fails.
void WriteImageFile(const std::string& path, const LoadedImage& image, SampleDepth depth,
                    int jpegQuality);

}  // namespace marlith
