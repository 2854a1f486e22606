// Blur kernel files for the marlith-deblur command line: a text or CSV matrix, a NumPy .npy
// array or an image. The values come back as stored (images scaled to [0, 1]), not normalised:
// normalising is the engine's job.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace marlith {

struct KernelFile {
  std::vector<double> values;  // row-major, row 0 at the top
  int width = 0, height = 0;
  // Changes made on reading that the user should hear of (a background level subtracted).
  std::vector<std::string> warnings;
};

// Reads the kernel file at path, of the kind its extension (in any letter case) names:
// - .npy: see ParseNpy;
// - .txt, .csv, .dat, .asc: see ParseKernelText;
// - anything else: an image read by ReadImageFile, each pixel as its Rec. 709 luminance
//   (0.2126 R + 0.7152 G + 0.0722 B, so a kernel drawn in any colour works) times its alpha
//   (transparent pixels count as black). Images of at least 5 x 5 pixels are then checked
//   against their border, the outermost ring of pixels, whose median is the background level b
//   and whose maximum over the image is m:
//   - b > m / 2 with a sample below b - m / 2 somewhere: dark strokes on a light background,
//     refused with a message saying the kernel looks inverted;
//   - m / 50 < b <= m / 2 with nine in ten border samples at least b / 2 (a raised, flat
//     border rather than a kernel's tails running out of the image): b is subtracted, values
//     below it become 0, and a warning says so.
// Every kind is then checked: no NaN or infinite value and no negative one below -5 % of the
// largest (the message gives its x, y from 0), not empty, a sum above 0; negative values down
// to -5 % of the largest (a measured PSF after background subtraction) are set to 0 with a
// warning. Throws marlith::Error, one line naming path and the reason.
KernelFile ReadKernelFile(const std::string& path);

// Parses a text matrix: one row per line of numbers ('.' decimal point, C syntax) separated by
// white space, commas or semicolons; '#' starts a comment to the end of the line; blank lines
// and a UTF-8 byte-order mark are ignored. In a file with a line holding both ';' and ',', the
// ',' is no separator but a decimal comma (a number holding two commas, or a comma and a '.',
// is refused as ambiguous, naming its line). Every row must have the same number of values.
// Applies the checks above. Throws marlith::Error naming name and the line at fault.
KernelFile ParseKernelText(std::string_view text, const std::string& name);

// Parses a NumPy .npy file (format versions 1, 2 and 3) holding a 2-D array, C or Fortran
// order, of dtype f4, f8, i1, i2, i4, i8, u1, u2, u4, u8 or b1, either byte order. Values are
// taken as they are (integers not scaled). Applies the checks above. Everything else (other
// dtypes or dimensions, a malformed header, shapes whose product overflows, data shorter or
// longer than the shape) is refused by a marlith::Error naming name and the reason.
KernelFile ParseNpy(std::span<const std::byte> bytes, const std::string& name);

// When the kernel's centroid lies more than one sample from its centre sample (column
// width / 2, row height / 2), the origin a run takes by default: a warning naming name, the
// offset and --kernel-origin support. Otherwise "".
std::string OffCentreWarning(const KernelFile& kernel, const std::string& name);

// Writes height rows of width values to path, of the type its extension (any letter case)
// names: .npy (little-endian float64, as read by ParseNpy and numpy.load), .tif/.tiff (32-bit
// floats, the values as they are) or .png (16-bit grey, scaled so the largest value is white).
// The file is written whole or not at all. Throws marlith::Error naming path for another
// extension or a failed write.
void WriteKernelFile(const std::string& path, std::span<const double> values, int width,
                     int height);

}  // namespace marlith
