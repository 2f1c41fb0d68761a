// SPDX-License-Identifier: MIT
// A library that a test preloads into a child process: the child finds this
// symbol only if its dynamic loader really loaded the library.
extern "C" __attribute__((visibility("default"))) int merivakPreloadMarker()
{
    return 4711;
}
