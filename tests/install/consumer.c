/* A C program built against the installed tree with pkg-config: restores a flat image (which
 * must stay flat) and checks the library's version. */
#include <marlith/marlith.h>
#include <math.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  enum { kWidth = 40, kHeight = 30 };
  static double in[kWidth * kHeight], out[kWidth * kHeight];
  const double kernel[9] = {1, 2, 1, 2, 4, 2, 1, 2, 1};
  for (int i = 0; i < kWidth * kHeight; ++i) in[i] = 0.25;
  MarlithImage input = {in, MARLITH_FLOAT64, kWidth, kHeight, 1, 1, kWidth, kWidth * kHeight};
  MarlithImage output = input;
  output.data = out;
  MarlithOptions options;
  marlithDefaultOptions(&options);
  options.threads = 1;
  if (marlithDeconvolveImage(&input, &output, kernel, 3, 3, &options, NULL) != MARLITH_OK) {
    fprintf(stderr, "refused: %s\n", marlithLastError());
    return 1;
  }
  for (int i = 0; i < kWidth * kHeight; ++i) {
    if (fabs(out[i] - 0.25) > 1e-9) {
      fprintf(stderr, "sample %d is %g, not 0.25\n", i, out[i]);
      return 1;
    }
  }
  if (argc > 1 && strcmp(marlithVersion(), argv[1]) != 0) {
    fprintf(stderr, "version %s, not %s\n", marlithVersion(), argv[1]);
    return 1;
  }
  return 0;
}
