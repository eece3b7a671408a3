// 64-bit division helpers that gcc calls on x86 (it has no 64-by-64 divide
// instruction there). libgcc, which normally provides them, cannot go into a
// kernel image, so forward them to the equivalents ntoskrnl.exe exports for
// MSVC-built drivers. Built as a static library: a driver that does no 64-bit
// division does not import them.
typedef long long i64;
typedef unsigned long long u64;

// ntoskrnl's helpers take both operands on the stack and pop them (__stdcall).
__declspec(dllimport) i64 __stdcall _alldiv(i64 dividend, i64 divisor);
__declspec(dllimport) i64 __stdcall _allrem(i64 dividend, i64 divisor);
__declspec(dllimport) u64 __stdcall _aulldiv(u64 dividend, u64 divisor);
__declspec(dllimport) u64 __stdcall _aullrem(u64 dividend, u64 divisor);

i64 __divdi3(i64 a, i64 b);
i64 __moddi3(i64 a, i64 b);
u64 __udivdi3(u64 a, u64 b);
u64 __umoddi3(u64 a, u64 b);

i64 __divdi3(i64 a, i64 b) { return _alldiv(a, b); }
i64 __moddi3(i64 a, i64 b) { return _allrem(a, b); }
u64 __udivdi3(u64 a, u64 b) { return _aulldiv(a, b); }
u64 __umoddi3(u64 a, u64 b) { return _aullrem(a, b); }
