// The axes and voxel size of a stack of pages (multi-page TIFF, ImageJ hyperstack, OME-TIFF),
// read from the first page's description. Public through image/image_io.h.
#pragma once

#include <string>
#include <string_view>

namespace marlith {

struct StackAxes {
  std::string kind = "TIFF";  // "ImageJ", "OME-TIFF" or "TIFF" (pages without axes: Z)
  int slices = 1, channels = 1, frames = 1;  // Z, C, T; their product is the pages' number
  // The order the pages run in, fastest first, after X and Y: ImageJ's is "CZT"; OME's
  // DimensionOrder gives it (XYZCT: "ZCT").
  std::string order = "ZCT";
  double dx = 0.0, dy = 0.0, dz = 0.0;  // voxel size in unit; 0 when not given
  std::string unit;                     // "micron", "nm", ...; empty when not given

  // The page (0 the first) holding slice z of channel c at frame t.
  int PageOf(int z, int c, int t) const;
};

// The axes pages pages have by description (an ImageJ "ImageJ=...\nimages=..\nslices=.." text or
// OME-XML), given the first page's resolution in pixels per unit (0 when not given): ImageJ's
// spacing and unit give dz and the unit, 1 / resolution dx and dy; OME's Pixels element
// SizeZ/C/T, DimensionOrder and PhysicalSizeX/Y/Z (and their units, micrometres by default).
// Axes whose product is not pages, or no description, give pages slices of kind "TIFF"; warning
// then says why when the description claimed other axes.
StackAxes ReadStackAxes(std::string_view description, int pages, double xResolution,
                        double yResolution, std::string* warning);

}  // namespace marlith
