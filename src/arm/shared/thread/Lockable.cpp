// SPDX-License-Identifier: MIT
#include "thread/Lockable.h"

namespace thread {

Lockable::Lockable(bool constructionFlag) : m_constructionFlag(constructionFlag) {}

// Pure virtual, yet every derived destructor runs it.
Lockable::~Lockable() = default;

}  // namespace thread
