// A Linux machine's addresses, neighbours and routes, as `ip -j` prints them, turned into a replay.
#pragma once

#include <ostream>

#include "linux/IpJson.h"

namespace Cli {

using Linux::IpDocument;
using Linux::IpDocuments;
/// A document could not be read or is not a JSON array; what() is "NAME: error: MESSAGE".
using ImportError = Linux::IpJsonError;

/// Writes a replay with the content of `documents`, one event on each line: VRFs, interfaces,
/// addresses, FECs, routes, neighbours, and finally the initialization of each VRF.
///
/// `hostroute import --help` describes what is imported. An entry that cannot be imported is left
/// out, and a line on `warnings` gives the reason. The output does not depend on the order in which
/// the kernel listed its routes and neighbours.
///
/// \throws ImportError before anything is written to `replay`.
void importReplay(const IpDocuments& documents, std::ostream& replay, std::ostream& warnings);

}  // namespace Cli
