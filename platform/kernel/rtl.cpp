// The run-time library routines that are functions rather than macros.
#include "kernel/kernel.h"

SIZE_T NTAPI RtlCompareMemory(const void* Source1, const void* Source2, SIZE_T Length) {
    auto a = static_cast<const UCHAR*>(Source1);
    auto b = static_cast<const UCHAR*>(Source2);
    SIZE_T same = 0;
    while (same < Length && a[same] == b[same])
        ++same;
    return same;
}

void NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    SIZE_T units = 0;
    while (SourceString[units] != 0)
        ++units;
    // Lengths are in bytes and must fit a USHORT with room for the terminator.
    constexpr SIZE_T kMaxBytes = 0xFFFC;
    SIZE_T bytes = units * sizeof(WCHAR) > kMaxBytes ? kMaxBytes : units * sizeof(WCHAR);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
}
