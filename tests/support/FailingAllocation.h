// SPDX-License-Identifier: MIT
// Allocation failure on demand: the program's operator new is replaced (in FailingAllocation.cpp, linked into the
// tests that use this header) so that the Nth allocation made by one chosen thread throws std::bad_alloc, the way
// a real out-of-memory condition would surface in the library.
//
// Only allocations through operator new are counted (the library's own, the standard containers', Boost's);
// malloc() calls inside the C library, such as pthread_create's, are not.
#ifndef VEXUTIL_TESTS_FAILINGALLOCATION_H
#define VEXUTIL_TESTS_FAILINGALLOCATION_H

#include <pthread.h>

// Makes the `n`th allocation (counting from 1) that `thread` makes from now on fail: operator new throws
// std::bad_alloc, the nothrow forms return null. Only one failure is armed at a time; arming again replaces it.
// The failure fires once; later allocations succeed.
void failNthAllocation(pthread_t thread, unsigned long n);

// Disarms; returns true if the armed failure fired.
bool disarmAllocationFailure();

#endif  // VEXUTIL_TESTS_FAILINGALLOCATION_H
