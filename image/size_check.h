// The one size check of every door and reader: a width x height (x channels) product computed
// without overflow and compared with a limit before any memory is taken for it.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>

namespace marlith {

// The product of factors when every factor is at least 1 and the product is at most limit;
// nothing otherwise. Each step is multiplied with an overflow check, so factors of any size (a
// caller's int32 sizes, a file's uint32 ones) can neither wrap past the limit nor turn negative:
// 1073741824 x 1073741824 x 16 is refused, not taken for 0.
inline std::optional<int64_t> SizeWithin(int64_t limit, std::initializer_list<int64_t> factors) {
  int64_t product = 1;
  for (const int64_t factor : factors) {
    if (factor < 1 || __builtin_mul_overflow(product, factor, &product) || product > limit)
      return std::nullopt;
  }
  return product;
}

}  // namespace marlith
