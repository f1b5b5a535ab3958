// SPDX-License-Identifier: Apache-2.0
// What can be wrong with a table's file, one sentence each.
//
// Errors: damage found while a table is in use is Pallo::CorruptionDetectedException; these are raised where
//   a file is opened or grown, and name it.
#pragma once

#include <string>

#include "pallo/exception.h"

namespace Shoal {

// The file cannot be opened as the table that was asked for.
class VANTREL_API FileException : public Pallo::Exception {
 public:
  enum class Reason {
    missing,
    notAllowed,
    shortOfMeans,  // of descriptors or memory: it may be had soon
    notATable,
    truncated,
    otherRecord,
    otherVersion,
    damaged,
    unwatchable
  };
  FileException(Reason reason, std::string const& text) : Exception(text), reason_(reason) {}
  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

// Another process (or another table object of this one) is the table's writer.
class VANTREL_API WriterLockedException : public Pallo::Exception {
 public:
  WriterLockedException(std::string const& text, int holder) : Exception(text), holder_(holder) {}
  int holder() const { return holder_; }  // its process id; 0: in a namespace of its own

 private:
  int holder_;
};

// The file system has no room for the table to grow; the table is as it was before.
class VANTREL_API NoSpaceException : public Pallo::Exception {
 public:
  using Exception::Exception;
};

}  // namespace Shoal
