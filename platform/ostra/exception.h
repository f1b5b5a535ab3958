// SPDX-License-Identifier: Apache-2.0
// The framework's exceptions.
#pragma once

#include <stdexcept>

#include "pallo/types.h"

namespace Ostra {

// The work could not be done now and is to be tried again later. The only exception a front end catches.
class VANTREL_API InternalException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A value outside the range of its type.
class VANTREL_API RangeException : public std::range_error {
 public:
  using std::range_error::range_error;
};

// A name that is not there, a value of the wrong type, or an attribute that cannot be written.
class VANTREL_API AttributeException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Ostra
