// SPDX-License-Identifier: MIT
// The board harness lives with the other shared test support.
#pragma once

#include "../../support/SimulatedBoard.h"
