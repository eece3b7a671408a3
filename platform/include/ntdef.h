// Base types of the Windows kernel, LLP64 widths on every host: LONG and ULONG
// are 32-bit, pointers and ULONG_PTR follow the machine word.
#pragma once

#ifdef __cplusplus
#define EXTERN_C extern "C"
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#else
#define EXTERN_C extern
#define EXTERN_C_START
#define EXTERN_C_END
#endif

#define IN
#define OUT
#define OPTIONAL
// Kernel routines and every callback the kernel, the USB stack and the stream
// class make into a driver use the Windows calling convention. On x64 that is
// one convention for all of them, variadic routines included; the 32-bit host
// keeps its default, so the driver runs here as it is called on Windows.
#if defined(__x86_64__)
#define NTAPI __attribute__((ms_abi))
#else
#define NTAPI
#endif
#define STREAMAPI NTAPI
#define FASTCALL NTAPI
#define DDKAPI NTAPI
#define WINAPIV NTAPI  // variadic routines (__cdecl on Windows)
#define CONST const
#define VOID void
#define FORCEINLINE static inline __attribute__((always_inline))
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define C_ASSERT(e) static_assert(e, #e)

#ifndef NULL
#define NULL nullptr
#endif
#define TRUE 1
#define FALSE 0

typedef void* PVOID;
typedef const void* PCVOID;
typedef char CHAR, CCHAR, *PCHAR, *PSTR;
typedef const char *PCSTR, *PCCHAR;
typedef unsigned char UCHAR, *PUCHAR, BOOLEAN, *PBOOLEAN, BYTE;
typedef short SHORT, CSHORT;
typedef unsigned short USHORT, *PUSHORT, WORD;
typedef int LONG, *PLONG;
typedef unsigned int ULONG, *PULONG, DWORD;
typedef long long LONGLONG, *PLONGLONG;
typedef unsigned long long ULONGLONG, *PULONGLONG, ULONG64;
typedef __INTPTR_TYPE__ LONG_PTR;
typedef __UINTPTR_TYPE__ ULONG_PTR, *PULONG_PTR, SIZE_T, *PSIZE_T, KAFFINITY;
typedef LONG NTSTATUS;
typedef ULONG ACCESS_MASK;
typedef PVOID HANDLE, *PHANDLE;

// Drivers write L"..." literals: those are 16-bit where the compiler is told
// so (-fshort-wchar, as on Windows); host code sees the same 16-bit units.
#if __SIZEOF_WCHAR_T__ == 2
typedef wchar_t WCHAR;
#else
typedef char16_t WCHAR;
#endif
typedef WCHAR *PWCHAR, *PWSTR;
typedef const WCHAR* PCWSTR;

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

typedef struct _UNICODE_STRING {
    USHORT Length;  // bytes, without the terminator
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *PGUID, *LPGUID;
typedef const GUID* LPCGUID;
typedef const GUID& REFGUID;

#define NT_SUCCESS(s) (((NTSTATUS)(s)) >= 0)
#define NT_INFORMATION(s) ((((ULONG)(s)) >> 30) == 1)
#define NT_WARNING(s) ((((ULONG)(s)) >> 30) == 2)
#define NT_ERROR(s) ((((ULONG)(s)) >> 30) == 3)

#define FIELD_OFFSET(type, field) ((LONG) __builtin_offsetof(type, field))
// The same address as the DDK's member access through a null pointer, without
// the undefined behaviour that UBSan reports in it.
#define CONTAINING_RECORD(address, type, field) \
    ((type*)((PCHAR)(address) - (ULONG_PTR)__builtin_offsetof(type, field)))
#define ARRAYSIZE(a) (sizeof(a) / sizeof((a)[0]))
#define RTL_NUMBER_OF(a) ARRAYSIZE(a)

#define MAKEFOURCC(a, b, c, d)                                                  \
    ((ULONG)(UCHAR)(a) | ((ULONG)(UCHAR)(b) << 8) | ((ULONG)(UCHAR)(c) << 16) | \
     ((ULONG)(UCHAR)(d) << 24))
