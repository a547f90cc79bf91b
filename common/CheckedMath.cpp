#include "common/CheckedMath.h"

#include <cstdlib>

#include "common/ZemLog.h"

namespace zem {
namespace internal {

void overflowAbort(const char* what) {
    ZEM_LOGE("arithmetic overflow in %s", what);
    std::abort();
}

}  // namespace internal
}  // namespace zem
