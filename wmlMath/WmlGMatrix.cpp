#include "wmlMath/WmlGMatrix.h"

namespace Wml {

template class GMatrix<double>;

}  // namespace Wml
