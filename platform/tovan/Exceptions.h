// The exceptions of shared-memory tables.
#pragma once

#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/containers/Export.h"

namespace Tovan {

/// A table's contents are inconsistent; the message names the table and the place.
///
/// The table stays usable: pass the message to its corruptionDetected() and continue.
class KIV_EXPORT CorruptionDetectedException : public Pindo::Exception {
 public:
  using Pindo::Exception::Exception;
};

/// An entry could not be read because the writer did not complete a change of it for a quarter of a
/// second, or changed it again during each reading. The writer is alive, but busy or stopped. No
/// damage is known: try later.
class KIV_EXPORT BusyException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A table that is open for reading only cannot be changed.
class KIV_EXPORT ReadOnlyException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A table cannot be opened: it is absent, damaged, no table, of another layout, or has a writer.
class KIV_EXPORT OpenException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A table cannot grow: memory is short, or the table has reached its largest size.
///
/// The change was not made; all entries are as they were.
class KIV_EXPORT NoSpaceException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

}  // namespace Tovan
