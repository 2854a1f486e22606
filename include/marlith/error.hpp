// The one exception type marlith throws for refused input and library failures.
#pragma once

#include <stdexcept>
#include <string>

#include "marlith/export.h"

namespace marlith {

// Thrown for input the program refuses (unreadable file, unusable kernel, bad size) and for
// failures reported by the libraries underneath (FFTW, UMFPACK, GraphicsMagick). The message
// is one line that names the file or value at fault; the entry points print it and turn it
// into their result code.
class MARLITH_API Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace marlith
