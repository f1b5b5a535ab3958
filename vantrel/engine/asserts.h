// SPDX-License-Identifier: Apache-2.0
// Assertions of the engine base: reported against the model file VantrelImpl.
#pragma once

#include "pallo/assert.h"

#define ENGINE_ASSERT(...) PALLO_ASSERT("VantrelImpl", __VA_ARGS__)
