// What shared-memory tables raise.
#pragma once

#include "platform/kiv/Exception.h"

namespace Tovan {

/// A table's contents are inconsistent; the message names the table and the place.
///
/// The table stays usable: pass the message to its corruptionDetected() and carry on.
class CorruptionDetectedException : public Pindo::Exception {
 public:
  using Pindo::Exception::Exception;
};

/// A change was asked of a table that is open for reading only.
class ReadOnlyException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A table cannot be opened: absent, something else, of another layout, damaged, or being written.
class OpenException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

/// A table cannot grow: memory is short, or the table has reached its largest size.
///
/// What was asked for did not happen; all entries are as they were.
class NoSpaceException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

}  // namespace Tovan
