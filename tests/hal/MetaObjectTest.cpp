// SPDX-License-Identifier: MIT
// The Qt meta-object face of the flash driver and the melody device: what the
// board software's generic code sees when it asks them by name.

#include "hal/vosta/Melody.h"
#include "hal/vosta/Merivak.h"

#include <QMetaMethod>
#include <QMetaObject>

#include <gtest/gtest.h>

#include <cstring>

namespace {

// Counts the members a class declares itself, beyond its QObject base.
struct OwnMembers {
    int methods;
    int properties;
    int enumerators;
    int classInfos;
};

OwnMembers ownMembers(const QMetaObject& meta)
{
    return {meta.methodCount() - meta.methodOffset(), meta.propertyCount() - meta.propertyOffset(),
            meta.enumeratorCount() - meta.enumeratorOffset(), meta.classInfoCount() - meta.classInfoOffset()};
}

TEST(MerivakMetaObject, DeclaresOnlyTheProtectedSlotHandleSPIdata)
{
    const QMetaObject& meta = merivak::Merivak::staticMetaObject;
    EXPECT_STREQ(meta.className(), "merivak::Merivak");
    EXPECT_EQ(meta.superClass(), &QObject::staticMetaObject);

    const OwnMembers own = ownMembers(meta);
    EXPECT_EQ(own.methods, 1);
    EXPECT_EQ(own.properties, 0);
    EXPECT_EQ(own.enumerators, 0);
    EXPECT_EQ(own.classInfos, 0);

    const QMetaMethod slot = meta.method(meta.methodOffset());
    EXPECT_EQ(slot.methodSignature(), QByteArray("handleSPIdata()"));
    EXPECT_EQ(slot.methodType(), QMetaMethod::Slot);
    EXPECT_EQ(slot.access(), QMetaMethod::Protected);
    EXPECT_EQ(slot.parameterCount(), 0);
    EXPECT_EQ(slot.returnType(), static_cast<int>(QMetaType::Void));
}

class MerivakObject : public ::testing::Test {
protected:
    merivak::Merivak m_driver;
};

TEST_F(MerivakObject, MetacastAnswersForTheClassAndTheSingletonBase)
{
    merivak::Merivak* const driver = &m_driver;
    EXPECT_EQ(driver->qt_metacast("merivak::Merivak"), static_cast<void*>(driver));
    // The singleton base lives at an offset inside the object: the answer must
    // be that sub-object, not the object's start.
    auto* const base = static_cast<merivak::BASE_InitSingleton_OF_Merivak*>(driver);
    EXPECT_EQ(driver->qt_metacast("BASE_InitSingleton_OF_Merivak"), static_cast<void*>(base));
    EXPECT_NE(static_cast<void*>(base), static_cast<void*>(driver));
    EXPECT_EQ(driver->qt_metacast("QObject"), static_cast<void*>(static_cast<QObject*>(driver)));
    EXPECT_EQ(driver->qt_metacast("melody::Melody"), nullptr);
    EXPECT_EQ(driver->qt_metacast("shared::InitSingletonT<merivak::Merivak>"), nullptr);
    EXPECT_EQ(driver->qt_metacast(nullptr), nullptr);
}

TEST_F(MerivakObject, MetaObjectIsTheStaticOneWithoutADynamicOne)
{
    EXPECT_EQ(m_driver.metaObject(), &merivak::Merivak::staticMetaObject);
}

TEST_F(MerivakObject, SlotIsReachableThroughTheMetaObjectSystem)
{
    EXPECT_TRUE(QMetaObject::invokeMethod(&m_driver, "handleSPIdata", Qt::DirectConnection));
    EXPECT_FALSE(QMetaObject::invokeMethod(&m_driver, "noSuchSlot", Qt::DirectConnection));
}

TEST_F(MerivakObject, MetacallConsumesItsOneMethodIndex)
{
    const int offset = merivak::Merivak::staticMetaObject.methodOffset();
    void* noArguments[] = {nullptr};
    // Index 0 of the class is the slot: consumed, so the remainder is negative.
    EXPECT_LT(m_driver.qt_metacall(QMetaObject::InvokeMetaMethod, offset, noArguments), 0);
    // Indices past the class's own methods are handed back lowered by one,
    // for a derived class to take.
    EXPECT_EQ(m_driver.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 3, noArguments), 2);
}

TEST(MelodyMetaObject, DeclaresNothingOfItsOwn)
{
    const QMetaObject& meta = melody::Melody::staticMetaObject;
    EXPECT_STREQ(meta.className(), "melody::Melody");
    EXPECT_EQ(meta.superClass(), &QObject::staticMetaObject);
    const OwnMembers own = ownMembers(meta);
    EXPECT_EQ(own.methods, 0);
    EXPECT_EQ(own.properties, 0);
    EXPECT_EQ(own.enumerators, 0);
    EXPECT_EQ(own.classInfos, 0);
}

TEST(MelodyMetaObject, MetacastAnswersForItsClassOnly)
{
    melody::Melody device;
    EXPECT_EQ(device.qt_metacast("melody::Melody"), static_cast<void*>(&device));
    EXPECT_EQ(device.qt_metacast("QObject"), static_cast<void*>(static_cast<QObject*>(&device)));
    EXPECT_EQ(device.qt_metacast("merivak::Merivak"), nullptr);
    EXPECT_EQ(device.metaObject(), &melody::Melody::staticMetaObject);
    const int offset = melody::Melody::staticMetaObject.methodOffset();
    void* noArguments[] = {nullptr};
    EXPECT_EQ(device.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 2, noArguments), 2);
}

}  // namespace
