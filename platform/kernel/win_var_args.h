// The variable arguments of a routine that drivers call with the Windows
// calling convention (DbgPrint, the stream-class notifications).
//
// On x64 every variable argument occupies one 8-byte slot, the first ones in
// the caller's register home area; an argument narrower than 8 bytes sits in
// the low bytes of its slot and the rest is undefined. The 32-bit host calls
// with its own C convention, read through va_list.
#pragma once

#include <cstdarg>
#include <cstring>

namespace winsim {

// Arguments passed with this host's own C convention.
class VaListArgs {
  public:
    explicit VaListArgs(va_list args) { va_copy(args_, args); }
    ~VaListArgs() { va_end(args_); }
    VaListArgs(const VaListArgs&) = delete;
    VaListArgs& operator=(const VaListArgs&) = delete;

    template <class T>
    T Next() {
        return va_arg(args_, T);
    }

  private:
    va_list args_;
};

#if defined(__x86_64__)

class WinVarArgs {
  public:
    explicit WinVarArgs(const char* slots) : next_(slots) {}

    template <class T>
    T Next() {
        static_assert(sizeof(T) <= 8, "a wider argument is passed by reference");
        T value;
        std::memcpy(&value, next_, sizeof value);
        next_ += 8;
        return value;
    }

  private:
    const char* next_;
};

// Starts reading the arguments after `last` inside a routine declared with the
// Windows convention (NTAPI, WINAPIV); END must follow in the same routine.
#define WINSIM_WIN_VA_BEGIN(args, last)        \
    __builtin_ms_va_list args##_slots;         \
    __builtin_ms_va_start(args##_slots, last); \
    winsim::WinVarArgs args(args##_slots)
#define WINSIM_WIN_VA_END(args) __builtin_ms_va_end(args##_slots)

#else

using WinVarArgs = VaListArgs;

#define WINSIM_WIN_VA_BEGIN(args, last) \
    va_list args##_list;                \
    va_start(args##_list, last);        \
    winsim::WinVarArgs args(args##_list)
#define WINSIM_WIN_VA_END(args) va_end(args##_list)

#endif

}  // namespace winsim
