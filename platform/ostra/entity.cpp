// SPDX-License-Identifier: Apache-2.0
#include "ostra/entity.h"

// The classes here are header-only; this file checks that the header stands alone.
