// A Linux machine's addresses, neighbours and routes, as `ip -j` prints them, turned into a replay.
#pragma once

#include <ostream>

#include "linux/IpJson.h"

namespace Cli {

using Linux::IpDocument;
using Linux::IpDocuments;
/// A document could not be had or is not a JSON array; what() is "NAME: error: MESSAGE".
using ImportError = Linux::IpJsonError;

/// Writes the replay that gives a switch what `documents` hold, one event on each line: VRFs,
/// interfaces, addresses, FECs, routes, neighbours, and last the initialization of every VRF.
///
/// What is imported and what is not is told by `hostroute import --help`. What cannot be imported
/// is left out, with one line on `warnings` that says which and why. The same state gives the same
/// lines, in whatever order the kernel listed its routes and neighbours.
///
/// \throws ImportError before anything is written to `replay`.
void importReplay(const IpDocuments& documents, std::ostream& replay, std::ostream& warnings);

}  // namespace Cli
