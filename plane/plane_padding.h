// Plane padding, even-size extension, kernel trimming and the synthetic kernels the engine uses.
// Planes are row-major doubles, width values a row, no gaps; a multi-channel image is its
// channel planes one after another. Every routine that makes a plane returns a new vector the
// caller owns. Overloads taking an rvalue consume the source plane.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "marlith/deconv_request.h"

namespace marlith {

// Centres a w x h plane in a zero W x H plane (W >= w, H >= h). The odd remainder of the margin
// goes to the left and top: the source's (0,0) lands at ((W - w + 1) / 2, (H - h + 1) / 2).
std::vector<double> PadCenteredUp(std::span<const double> plane, int w, int h, int W, int H);
std::vector<double> PadCenteredUp(std::vector<double>&& plane, int w, int h, int W, int H);

// As PadCenteredUp, but the odd remainder goes to the right and bottom: (0,0) lands at
// ((W - w) / 2, (H - h) / 2). The two roundings differ on purpose; callers rely on each.
std::vector<double> PadCenteredDown(std::span<const double> plane, int w, int h, int W, int H);
std::vector<double> PadCenteredDown(std::vector<double>&& plane, int w, int h, int W, int H);

// A kernel cut to the bounding box of its taps strictly above max / 255 (max starting at 0).
struct CroppedKernel {
  std::vector<double> values;
  int width = 0;
  int height = 0;
};

// Trims a width x height kernel to its support; the values are not renormalised. Assumes the
// kernel has a positive finite maximum (callers reject other kernels first).
CroppedKernel CropKernelToSupport(std::span<const double> kernel, int width, int height);

// Gaussian exp(-((x-cx)^2 + (y-cy)^2) / (2 sigma^2)) centred at ((width-1)/2, (height-1)/2),
// normalised to unit sum.
std::vector<double> MakeGaussianKernel(int width, int height, double sigma);
// Every value 1 / (width * height).
std::vector<double> MakeBoxKernel(int width, int height);
// The kernels above, centred in a W x H zero plane with PadCenteredUp.
std::vector<double> MakePaddedGaussianKernel(int width, int height, double sigma, int W, int H);
std::vector<double> MakePaddedBoxKernel(int width, int height, int W, int H);

// The first-difference filters (1, -1) as a row (Dx) and as a column (Dy), centred in a W x H
// zero plane with PadCenteredUp.
std::vector<double> MakeDxFilter(int W, int H);
std::vector<double> MakeDyFilter(int W, int H);

// Working record of the even-size extension: the source planes with their size and channel
// count in, the even working planes and their size out. marginWidth, marginHeight and
// boundaryType are carried for the solver run that fills border margins.
struct EvenSizeWork {
  std::span<const double> input;  // channels x height x width
  std::vector<double> planes;     // channels x workHeight x workWidth, filled by ExtendToEvenSize
  int width = 0;
  int height = 0;
  int channels = 0;
  int workWidth = 0;
  int workHeight = 0;
  int marginWidth = 0;
  int marginHeight = 0;
  int32_t boundaryType = 0;
};

// The working record of a request: its input planes, sizes and channel count, the kernel's
// size as the margins, and its boundary type.
EvenSizeWork MakeEvenSizeWork(const DeconvRequest& request);

// Sets workWidth/workHeight to width/height raised to the next even number and fills planes:
// an odd width repeats each row's last value once, an odd height repeats the last row once.
void ExtendToEvenSize(EvenSizeWork& work);

// Copies, per channel, the centred width x height region of a workWidth x workHeight plane
// (starting at row (workHeight - height) / 2, column (workWidth - width) / 2) into output, the
// channel regions stored one after another. output holds channels x width x height values.
void CropCenteredBack(std::span<const double> workPlanes, int workWidth, int workHeight, int width,
                      int height, int channels, std::span<double> output);

}  // namespace marlith
