// How an image file's samples encode light, read from what the file says: an ICC profile's
// tone curves (through Little CMS), a PNG's cICP, sRGB and gAMA chunks, or the sample depth.
// The blur happened in linear light, so the engine linearises with this curve, restores, and
// encodes back with it (DeconvolveOptions::colorspace and toneCurve).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "image/image_io.h"
#include "marlith/deconvolve.hpp"

namespace marlith {

// Entries of the tables made here: enough that linear interpolation between them is within
// 1e-6 of a smooth curve.
inline constexpr int kToneCurveSize = 4096;

struct ToneCurve {
  enum class Kind {
    kLinear,  // the samples are proportional to light
    kSrgb,    // the sRGB curve (also when a file's own curve is sRGB's within 1e-3)
    kTable,   // table holds the curve
  };
  Kind kind = Kind::kSrgb;
  // kTable (and kLinear or kSrgb when read from an ICC profile): table[i] is the linear light of
  // the encoded value i / (kToneCurveSize - 1), from 0 at i = 0 to 1 at the end, strictly
  // increasing. Empty otherwise.
  std::vector<double> table;
  // For messages: which curve and what said so, as "gamma 2.2 (the PNG gAMA chunk)".
  std::string description;
  // Not empty when a curve the file gave could not be used: why (ImageToneCurve's also says
  // what was taken instead).
  std::string warning;
};

// The curve of an ICC profile's grey or RGB tone curves (TRC tags): the one curve when the
// channels' curves agree; otherwise, and for profiles built from lookup tables, the luminance
// of a neutral grey ramp through the profile (what a grey pixel's light follows). Returns
// kind kSrgb with warning set to the reason when the profile cannot be read, is not for grey
// or RGB samples, or gives no increasing ramp.
ToneCurve ToneCurveFromIcc(std::string_view profile);

// The curve a PNG file's chunks give (PNG's own order of precedence: cICP, then sRGB, then
// gAMA; the ICC profile of an iCCP chunk is ToneCurveFromIcc's). Returns kind kSrgb with a
// description saying "the file does not say" when the chunks are empty, and the same with
// warning set when they hold values that are not understood (an unknown cICP transfer
// function, a gAMA of 0).
ToneCurve ToneCurveFromPngChunks(const PngLightChunks& chunks);

// The curve for an image as read (the choice "auto"): floating-point samples are linear; else
// the ICC profile's curve; else the PNG chunks'; else sRGB, for 8- and 16-bit samples whose
// file says nothing. A profile that cannot be used falls through to the next with warning set.
ToneCurve ImageToneCurve(const LoadedImage& image);

// The curve a user chose (kLinear or kSrgb), described as "sRGB (<option> srgb)" or
// "linear light (<option> linear)".
ToneCurve ChosenToneCurve(Colorspace colorspace, std::string_view option);

// Sets options.colorspace and options.toneCurve for curve: kLinear and kSrgb as the
// enumeration (the engine has the sRGB formula itself), kTable as the table.
void ApplyToneCurve(const ToneCurve& curve, DeconvolveOptions& options);

// The linear light of an encoded sample through curve (encoded values clipped to [0, 1] for
// the sRGB curve and tables), for readings that need light rather than stored values.
double LinearLight(const ToneCurve& curve, double encoded);

}  // namespace marlith
