// The layout shared by the periodic border extensions: two seam strips, a corner block, and
// the padded plane assembled from them. Private to fit/.
#pragma once

#include <cstddef>
#include <vector>

namespace marlith {

// Sizes of one extension of a W x H plane; SW and SH are the strips' extents across the seams.
struct SeamLayout {
  int W, H, padX, padY, bandX, bandY, SW, SH;
  SeamLayout(int w, int h, int px, int py, int bx, int by)
      : W(w),
        H(h),
        padX(px),
        padY(py),
        bandX(bx),
        bandY(by),
        SW(2 * (bx + px)),
        SH(2 * (by + py)) {}
  size_t lrSize() const { return static_cast<size_t>(SW) * H; }
  size_t tbSize() const { return static_cast<size_t>(W) * SH; }
  size_t cornerSize() const { return static_cast<size_t>(SW) * SH; }
};

// Left-right strip (SW x H): the image's last bandX columns on the left, its first bandX on the
// right, zeros in the gap between them.
void FillLeftRight(const SeamLayout& L, const double* image, double* strip);
// Top-bottom strip (W x SH): the image's last bandY rows on top, its first bandY at the bottom.
void FillTopBottom(const SeamLayout& L, const double* image, double* strip);
// Corner block (SW x SH) from the fitted strips: the left-right strip's last bandY rows on top
// and its first bandY rows at the bottom, between them the top-bottom strip's outer columns.
void FillCorner(const SeamLayout& L, const double* lr, const double* tb, double* corner);
// The padded plane, rows of [second half of the gap | image row | first half of the gap].
void AssemblePadded(const SeamLayout& L, const double* image, const double* lr, const double* tb,
                    const double* corner, double* padded);

// Weights of the data in each plane: 0.5 on the strips' bands; in the corner block 1.0 on the
// top rows, 0.5 on the bottom rows and on the outer columns between them.
std::vector<double> LeftRightWeights(const SeamLayout& L);
std::vector<double> TopBottomWeights(const SeamLayout& L);
std::vector<double> CornerWeights(const SeamLayout& L);

}  // namespace marlith
