// A name that is made when the process starts, by a source that knows of nothing but names. It is
// to be the first to be initialised, so it stands first in the alphabet.
#include "platform/kiv/String.h"

namespace Sample {

namespace {
const Kiv::Name nameOfStart("red");
}  // namespace

const Kiv::Name& staticName() {
  return nameOfStart;
}

}  // namespace Sample
