// SPDX-License-Identifier: MIT
// The singleton base keeps an empty shared pointer and drops whatever it
// holds when an object of the derived class is destroyed.

#include "InitSingletonT.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

class Tracked;
using TrackedBase = shared::InitSingletonT<Tracked>;

class Tracked : public TrackedBase {
public:
    explicit Tracked(bool* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~Tracked() override
    {
        if (m_destroyed != nullptr) {
            *m_destroyed = true;
        }
    }

    static std::shared_ptr<Tracked>& instance() { return s_pInstance; }

private:
    bool* m_destroyed;
};

TEST(InitSingletonT, PointerStartsEmptyAndDestroyingAnyObjectDropsTheHeldInstance)
{
    EXPECT_FALSE(Tracked::instance());
    bool heldDestroyed = false;
    Tracked::instance() = std::make_shared<Tracked>(&heldDestroyed);
    {
        Tracked other;
    }
    EXPECT_FALSE(Tracked::instance());
    EXPECT_TRUE(heldDestroyed) << "the reference held by the pointer was the last one";
}

}  // namespace
