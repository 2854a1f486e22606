// PNG decoding and encoding of a photograph: GraphicsMagick (as the image layer used it: PNG24,
// quality 45, i.e. zlib level 4 with adaptive filters) against libspng at zlib levels 1 to 4
// and a few row-filter choices. Best of five of each, in the same run; the decoded pixels and
// every encoded file's pixels are checked against GraphicsMagick's decoding of the input.
// Usage: png_bench photo.png
#include <Magick++.h>
#include <spng.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "image/png_codec.h"

namespace {

double BestOf(int runs, const std::function<void()>& work) {
  double best = 1e300;
  for (int i = 0; i < runs; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    work();
    best = std::min(best,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  return best;
}

std::vector<uint8_t> MagickDecode(const std::string& bytes, int& w, int& h) {
  Magick::Image image;
  image.read(Magick::Blob(bytes.data(), bytes.size()));
  w = static_cast<int>(image.columns());
  h = static_cast<int>(image.rows());
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  image.write(0, 0, w, h, "RGB", Magick::CharPixel, rgb.data());
  return rgb;
}

std::string SpngEncode(const std::vector<uint8_t>& rgb, int w, int h, int level, int filters) {
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_ihdr ihdr{};
  ihdr.width = w;
  ihdr.height = h;
  ihdr.bit_depth = 8;
  ihdr.color_type = SPNG_COLOR_TYPE_TRUECOLOR;
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  spng_set_option(ctx, SPNG_IMG_COMPRESSION_LEVEL, level);
  spng_set_option(ctx, SPNG_FILTER_CHOICE, filters);
  spng_set_ihdr(ctx, &ihdr);
  spng_encode_image(ctx, rgb.data(), rgb.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
  size_t len = 0;
  int error = 0;
  void* buffer = spng_get_png_buffer(ctx, &len, &error);
  std::string out(static_cast<const char*>(buffer), len);
  std::free(buffer);
  spng_ctx_free(ctx);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: png_bench photo.png\n");
    return 2;
  }
  Magick::InitializeMagick(nullptr);
  std::ifstream in(argv[1], std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  const std::string bytes = buffer.str();
  int w = 0, h = 0;
  const std::vector<uint8_t> pixels = MagickDecode(bytes, w, h);
  std::printf(
      "%s: %d x %d, %zu bytes\n\n| step | seconds | bytes | same pixels |\n|---|---:|---:|---|\n",
      argv[1], w, h, bytes.size());

  int dw, dh;
  const double gmDecode = BestOf(5, [&] { MagickDecode(bytes, dw, dh); });
  std::printf("| decode, GraphicsMagick | %.3f | | yes |\n", gmDecode);
  std::vector<uint8_t> decoded;
  int32_t sw = 0, sh = 0;
  bool ok = false;
  const double spngDecode = BestOf(5, [&] {
    bool grey = false;
    ok = marlith::DecodePng8(bytes, 1LL << 28, sw, sh, grey, decoded);
  });
  std::printf("| decode, libspng | %.3f | | %s |\n", spngDecode,
              ok && decoded == pixels ? "yes" : "NO");

  auto check = [&](const std::string& png) {
    int cw, ch;
    return MagickDecode(png, cw, ch) == pixels ? "yes" : "NO";
  };
  std::string gm;
  const double gmEncode = BestOf(5, [&] {
    Magick::Image image(w, h, "RGB", Magick::CharPixel, pixels.data());
    image.type(Magick::TrueColorType);
    image.depth(8);
    image.quality(45);
    image.magick("PNG24");
    Magick::Blob blob;
    image.write(&blob);
    gm.assign(static_cast<const char*>(blob.data()), blob.length());
  });
  std::printf("| encode, GraphicsMagick level 4 adaptive | %.3f | %zu | %s |\n", gmEncode,
              gm.size(), check(gm));
  const struct {
    const char* name;
    int filters;
  } choices[] = {{"none", SPNG_FILTER_CHOICE_NONE},
                 {"sub", SPNG_FILTER_CHOICE_SUB},
                 {"paeth", SPNG_FILTER_CHOICE_PAETH},
                 {"all (adaptive)", SPNG_FILTER_CHOICE_ALL}};
  for (int level : {1, 2, 3, 4}) {
    for (const auto& choice : choices) {
      std::string png;
      const double t = BestOf(5, [&] { png = SpngEncode(pixels, w, h, level, choice.filters); });
      std::printf("| encode, libspng level %d %s | %.3f | %zu | %s |\n", level, choice.name, t,
                  png.size(), check(png));
    }
  }
  std::string mine, error;
  const double t = BestOf(5, [&] { marlith::EncodeRgb8Png(pixels.data(), w, h, mine, error); });
  std::printf("| encode, image layer's EncodeRgb8Png | %.3f | %zu | %s |\n", t, mine.size(),
              check(mine));
  return 0;
}
