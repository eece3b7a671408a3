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

#ifdef __cplusplus
// mingw's strmini.h and usbdlib.h declare the stream.sys / usbd.sys entry
// points without extern "C". Including them here, inside extern "C", gives
// them C linkage; their include guards make the driver's own #include a no-op.
extern "C" {
#endif

// mingw's strmini.h leaves STREAMAPI (__stdcall) off these four, but stream.sys
// exports them as __stdcall: on x86 a caller using __cdecl would unbalance the
// stack. Prefixing the names while the header is read fixes the declarations.
#define StreamClassAbortOutstandingRequests   STREAMAPI StreamClassAbortOutstandingRequests
#define StreamClassGetNextEvent               STREAMAPI StreamClassGetNextEvent
#define StreamClassQueryMasterClock           STREAMAPI StreamClassQueryMasterClock
#define StreamClassRegisterFilterWithNoKSPins STREAMAPI StreamClassRegisterFilterWithNoKSPins
#include <strmini.h>
#undef StreamClassAbortOutstandingRequests
#undef StreamClassGetNextEvent
#undef StreamClassQueryMasterClock
#undef StreamClassRegisterFilterWithNoKSPins

#include <usb.h>
#include <usbdi.h>
#include <usbdlib.h>

#ifdef __cplusplus
}
#endif
