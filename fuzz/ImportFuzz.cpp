// Imports any bytes as output of `ip -j`. The import refuses them or writes a replay. Zero bytes
// separate the documents.
#include <cstdint>
#include <sstream>
#include <string>

#include "cli/Import.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(data, data + size));
  Cli::IpDocuments documents;
  for (auto* document : {&documents.link, &documents.addr, &documents.neigh, &documents.route4,
                         &documents.route6, &documents.nexthop}) {
    std::string text;
    if (std::getline(in, text, '\0')) *document = {.name = "document", .text = text};
  }
  std::ostringstream replay;
  std::ostringstream warnings;
  try {
    Cli::importReplay(documents, replay, warnings);
  } catch (const Cli::ImportError&) {
  }
  return 0;
}
