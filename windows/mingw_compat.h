// Forced in front of every driver source in the Windows cross-build, so that
// mingw-w64's DDK headers take the driver's sources unchanged.
#pragma once

// Keep pool tags: without this mingw maps ExAllocatePoolWithTag to ExAllocatePool.
#define POOL_TAGGING 1

// wdm.h would otherwise redeclare these intrinsics in C++.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

#include <wdm.h>

// ksmedia.h uses TCHAR, which only the user-mode headers define.
typedef WCHAR TCHAR;
