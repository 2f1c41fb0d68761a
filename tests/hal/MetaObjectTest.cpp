// SPDX-License-Identifier: MIT
// The flash driver's one slot, as the board software's generic code reaches
// it: by name through the meta-object system.

#include "hal/vosta/Merivak.h"

#include <QMetaObject>

#include <gtest/gtest.h>

namespace {

TEST(MerivakObject, SlotIsReachableThroughTheMetaObjectSystem)
{
    merivak::Merivak driver;
    EXPECT_TRUE(QMetaObject::invokeMethod(&driver, "handleSPIdata", Qt::DirectConnection));
    EXPECT_FALSE(QMetaObject::invokeMethod(&driver, "noSuchSlot", Qt::DirectConnection));
}

}  // namespace
