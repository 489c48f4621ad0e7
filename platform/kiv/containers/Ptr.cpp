#include "platform/kiv/containers/Ptr.h"

namespace Kiv::detail {

void raiseNull() {
  throw Exception("null ValidPtr");
}

}  // namespace Kiv::detail
