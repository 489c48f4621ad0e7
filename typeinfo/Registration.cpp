// Registers the types of both modules when the library is loaded.
#include "typeinfo/HostRoute6Sm.h"
#include "typeinfo/HostRouteSm.h"

namespace {

[[maybe_unused]] const bool kIsRegistered = [] {
  kivInitHostRouteSm();
  kivInitHostRoute6Sm();
  return true;
}();

}  // namespace
