// TIFF through libtiff, for what GraphicsMagick does not keep: floating-point samples at full
// precision, and EXIF (carried in Photoshop's EXIF resource, tag 34377, as Photoshop does).
// Private to image/: the public entry is image/image_io.h.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "image/image_io.h"

namespace marlith {

// The integer sample every writer stores for v: v clipped to [0, 1] (NaN as 0), times maxValue,
// rounded to nearest.
inline int QuantiseSample(double v, int maxValue) {
  const double clipped = v >= 0.0 ? (v <= 1.0 ? v : 1.0) : 0.0;
  return static_cast<int>(clipped * maxValue + 0.5);
}

// True when bytes start like a classic or BigTIFF file.
bool LooksLikeTiff(std::string_view bytes);

// What libtiff reads of the first image of a TIFF file.
struct TiffContents {
  // The pixels, converted by one table of sample types and colour spaces (see TiffLayoutOf in
  // tiff_file.cpp): grey, RGB, palette, CMYK and YCbCr colour; unsigned integers of 1 to 16
  // bits on the [0, 1] scale (k8, k16); 32-bit unsigned and signed integers as floating point
  // divided by the type's largest value (unsigned to [0, 1], signed to [-1, 1]); half, single
  // and double floats as stored (kFloat); one extra sample as alpha only when the file marks it
  // as alpha, associated alpha divided out. The ICC profile, XMP, IPTC, and EXIF (Photoshop's
  // EXIF resource, or else the file's own camera tags and EXIF directory).
  LoadedImage image;
  int orientation = 1;  // the TIFF orientation tag, 1 to 8; the pixels are as stored
};

// What a TIFF file says of its pages as a whole: their number, and the first page's
// description and resolution (ImageJ and OME-TIFF keep a stack's axes and voxel size there).
struct TiffPages {
  int count = 1;
  std::string description;                      // ImageDescription, empty when none
  double xResolution = 0.0, yResolution = 0.0;  // pixels per unit; 0 when not given
  uint16_t resolutionUnit = 1;                  // 1 none, 2 inch, 3 centimetre
};

// Reads the above of a TIFF held in memory. Throws marlith::Error naming path when libtiff
// cannot read it.
TiffPages ReadTiffPages(std::string_view bytes, const std::string& path);

// Reads page (0 the first) of a TIFF held in memory. Throws marlith::Error naming path when libtiff
// cannot read it, when it has more than kMaxImagePixels pixels (checked before any pixel memory is
// taken), or when its samples are of a type or colour space the table refuses: CIE L*a*b*, other
// colour spaces than the above, other sample sizes, extra samples not marked as alpha.
TiffContents ReadTiff(std::string_view bytes, const std::string& path, int page = 0);

// "<path>: <reason>" when a TIFF's samples are CIE L*a*b* or signed integers, which
// GraphicsMagick decodes wrongly (false colours, wrapped values); "" otherwise (also when
// libtiff cannot open it at all). For the six-argument command's loader, which decodes TIFF with
// GraphicsMagick.
std::string TiffRefusal(std::string_view bytes, const std::string& path);

// The TIFF file (Deflate-compressed strips, samples interleaved, upright) holding image as
// 8- or 16-bit unsigned integers, rounded and clipped to [0, 1] first, or as 32-bit IEEE floats
// unclipped. Alpha is written as an unassociated extra sample; the ICC profile, XMP (tag 700)
// and IPTC (tag 33723) go into their tags, the EXIF block into Photoshop's EXIF resource whole
// and, for other programs, its camera tags into the file's own tags and its EXIF directory into
// the file's EXIF directory (tag 34665; not in BigTIFF files). image must be consistent (see
// WriteImageFile). Throws marlith::Error naming path when libtiff fails.
std::string EncodeTiff(const LoadedImage& image, SampleDepth depth, const std::string& path);

// The TIFF file holding pages as EncodeTiff holds one image, one directory each in order: the
// first page's metadata in the first directory (an EXIF directory only in a one-page file);
// with tags, every page gets its resolution, the first its description (replacing an
// ImageDescription of the EXIF block), and a file of several pages marks each as a page of a
// multi-page file (NewSubfileType, PageNumber).
std::string EncodeTiffPages(std::span<const LoadedImage> pages, SampleDepth depth,
                            const std::string& path, const TiffPages* tags);

}  // namespace marlith
