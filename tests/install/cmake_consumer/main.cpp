// A C++ program built against the installed tree with find_package(marlith): restores a flat
// image through the C++ API and catches the library's refusal of a bad kernel as marlith::Error
// thrown from inside libmarlith.so.
#include <marlith/deconvolve.hpp>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

int main() {
  const int width = 40, height = 30;
  std::vector<std::uint8_t> image(width * height * 3, 200), output(image.size());
  const std::vector<double> kernel{1, 2, 1, 2, 4, 2, 1, 2, 1};
  marlith::DeconvolveOptions options;
  options.noise = 0.1;
  options.threads = 1;
  marlith::Deconvolve(marlith::ConstImageView::Interleaved(image.data(), width, height, 3),
                      {kernel, 3, 3},
                      marlith::ImageView::Interleaved(output.data(), width, height, 3), options);
  if (output != image) {
    std::fprintf(stderr, "a flat image did not stay flat\n");
    return 1;
  }
  const std::vector<double> black(9, 0.0);
  try {
    marlith::Deconvolve(marlith::ConstImageView::Interleaved(image.data(), width, height, 3),
                        {black, 3, 3},
                        marlith::ImageView::Interleaved(output.data(), width, height, 3));
  } catch (const marlith::Error&) {
    return 0;
  }
  std::fprintf(stderr, "a black kernel was not refused\n");
  return 1;
}
