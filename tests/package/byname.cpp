// A program outside this project that knows the plug-in by its file alone: makes a root by name.
#include <dlfcn.h>

#include <array>
#include <iostream>

#include "platform/kiv/reflection/EntityDirectory.h"
#include "typeinfo/ValueTypes.h"

int main() {
  if (::dlopen("libhostroute.so.1", RTLD_NOW) == nullptr) {
    std::cerr << ::dlerror() << '\n';
    return 1;
  }
  const auto* type = Kiv::TypeRegistry::find("Routing::Host::RouteSmRoot");
  const auto root = type->construct(std::array{Kiv::GenericValue::of(Kiv::Name("red"))});
  const Kiv::EntityDirectory::Mount mount("/red", root);
  std::cout << root.text() << '\n';
  return 0;
}
