// What shared-memory tables raise.
#pragma once

#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/containers/Export.h"

namespace Tovan {

/// A table's contents are inconsistent; the message names the table and the place.
///
/// The table stays usable: pass the message to its corruptionDetected() and carry on.
class KIV_EXPORT CorruptionDetectedException : public Pindo::Exception {
 public:
  using Pindo::Exception::Exception;
};

/// What was to be read is being changed, and still was after a quarter of a second, or changed
/// again and again while it was read. The writer is alive, but busy or stopped. Nothing is known to
/// be damaged: try later.
class KIV_EXPORT BusyException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A change was asked of a table that is open for reading only.
class KIV_EXPORT ReadOnlyException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A table cannot be opened: absent, something else, of another layout, damaged, or being written.
class KIV_EXPORT OpenException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A table cannot grow: memory is short, or the table has reached its largest size.
///
/// What was asked for did not happen; all entries are as they were.
class KIV_EXPORT NoSpaceException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

}  // namespace Tovan
