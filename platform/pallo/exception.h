// SPDX-License-Identifier: Apache-2.0
// The exceptions of the platform's services. None derives from Ostra::InternalException: only that one means
// "try again later", these mean that a caller or a file is wrong.
//
// Invariants: what() is one sentence that names what is wrong.
// Errors: who reads a table catches the first of them and reports it; the others are left to the agent.
#pragma once

#include <stdexcept>
#include <string>

#include "pallo/types.h"

namespace Pallo {

class VANTREL_API Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A shared-memory table found its contents damaged.
class VANTREL_API CorruptionDetectedException : public Exception {
 public:
  using Exception::Exception;
};

// A fixed-capacity array was given more elements than it holds.
class VANTREL_API InvalidSizeException : public Exception {
 public:
  using Exception::Exception;
};

// A write, remove or clean-up through a read-only mount.
class VANTREL_API NoPermissionException : public Exception {
 public:
  using Exception::Exception;
};

// An operation that this kind of table does not offer.
class VANTREL_API UnimplementedException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Pallo
