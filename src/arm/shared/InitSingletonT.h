// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

namespace shared {

// Base of classes that the board software may reach as a shared instance.
// T is the derived class. s_pInstance starts empty at process start and is
// released at process exit; a derived object never owns itself through it, so
// in this program it stays empty. Destroying any T drops whatever reference
// the pointer held.
template <typename T>
class InitSingletonT {
public:
    InitSingletonT() = default;
    InitSingletonT(const InitSingletonT&) = delete;
    InitSingletonT& operator=(const InitSingletonT&) = delete;

    // Pure so that the template cannot be made on its own; it still has a body.
    virtual ~InitSingletonT() = 0;

protected:
    static std::shared_ptr<T> s_pInstance;
};

template <typename T>
std::shared_ptr<T> InitSingletonT<T>::s_pInstance;

template <typename T>
InitSingletonT<T>::~InitSingletonT()
{
    s_pInstance.reset();
}

}  // namespace shared
