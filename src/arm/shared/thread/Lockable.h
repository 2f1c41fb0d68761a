// SPDX-License-Identifier: MIT
#pragma once

namespace thread {

// The locking vocabulary of the board software: anything that can be held
// by one thread at a time. thread::Lock guards any Lockable for a scope.
class Lockable {
public:
    // The construction flag is kept for the object's life; the library
    // itself never reads it.
    explicit Lockable(bool constructionFlag);
    virtual ~Lockable() = 0;

    // Blocks until the calling thread holds the lock; true on success.
    virtual bool lock() = 0;
    // Takes the lock only if that is possible without waiting; true if held.
    virtual bool tryLock() = 0;
    // Releases one hold of the lock; 0 on success.
    virtual int unlock() = 0;

    Lockable(const Lockable&) = delete;
    Lockable& operator=(const Lockable&) = delete;

private:
    [[maybe_unused]] bool m_constructionFlag;  // kept, never read
};

}  // namespace thread
