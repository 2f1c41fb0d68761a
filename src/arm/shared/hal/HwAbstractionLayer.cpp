// SPDX-License-Identifier: MIT
#include "hal/HwAbstractionLayer.h"

namespace hal {

HwAbstractionLayer::~HwAbstractionLayer() = default;

}  // namespace hal
