// A name with static initialisation, in a source that includes only the header of names. The source
// comes first in the alphabet, so that the linker initialises it first.
#include "platform/kiv/containers/String.h"

namespace Sample {

namespace {
const Kiv::Name nameOfStart("red");
}  // namespace

const Kiv::Name& staticName() {
  return nameOfStart;
}

}  // namespace Sample
