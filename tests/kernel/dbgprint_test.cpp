// DbgPrint formatting with the kernel's rules, and where its output goes.
#include "kernel_test.h"

#include <cstdarg>

namespace kerneltest {
namespace {

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = winsim::FormatDbgPrint(format, args);
    va_end(args);
    return text;
}

TEST(DbgPrintFormat, FollowsWindowsLengthsFlagsAndStringKinds) {
    EXPECT_EQ(Format("%I64x", 0x123456789ABCDEF0ULL), "123456789abcdef0");
    EXPECT_EQ(Format("%llu", 18446744073709551615ULL), "18446744073709551615");
    EXPECT_EQ(Format("%I64d %ld", -5LL, LONG(-7)), "-5 -7");
    // %I takes a pointer-sized argument: 64 bits on x64, 32 on x86.
    EXPECT_EQ(Format("%Iu %d", ~SIZE_T(0), 7), std::to_string(~SIZE_T(0)) + " 7");
    EXPECT_EQ(Format("%hx %hhx", 0x12345, 0x1FF), "2345 ff");
    EXPECT_EQ(Format("[%-5d]", 42), "[42   ]");
    EXPECT_EQ(Format("[%05d]", -42), "[-0042]");
    EXPECT_EQ(Format("[%+d|% d]", 3, 3), "[+3| 3]");
    EXPECT_EQ(Format("[%#x|%#X|%#o]", 255, 255, 8), "[0xff|0XFF|010]");
    EXPECT_EQ(Format("[%.3d|%.0d]", 7, 0), "[007|]");
    EXPECT_EQ(Format("[%*d|%-*d]", 4, 1, 3, 2), "[   1|2  ]");
    // %p prints every digit of a pointer.
    EXPECT_EQ(Format("[%p]", reinterpret_cast<void*>(0x12ABCD)),
              "[" + std::string(2 * sizeof(void*) - 6, '0') + "12ABCD]");

    EXPECT_EQ(Format("[%.*s]", 3, "abcdef"), "[abc]");
    EXPECT_EQ(Format("%s", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(Format("%ws and %S", u"wide", u"Also"), "wide and Also");
    EXPECT_EQ(Format("%ls|%hs", u"l", "h"), "l|h");
    EXPECT_EQ(Format("%ws", static_cast<const char16_t*>(nullptr)), "(null)");
    EXPECT_EQ(Format("%ws", u"\u00e9\U0001F600"), "\u00e9\U0001F600");

    char16_t text[] = u"CameraName-extra";
    UNICODE_STRING counted;
    counted.Buffer = reinterpret_cast<PWSTR>(text);
    counted.Length = 10 * sizeof(char16_t);  // no terminator within the count
    counted.MaximumLength = sizeof text;
    EXPECT_EQ(Format("<%wZ>", &counted), "<CameraName>");
    EXPECT_EQ(Format("%wZ", static_cast<PUNICODE_STRING>(nullptr)), "(null)");
    EXPECT_EQ(Format("%c%wc%C", 'a', u'b', u'c'), "abc");
    EXPECT_EQ(Format("100%%"), "100%");
    EXPECT_EQ(Format("%q %d", 5), "%q 5") << "unknown conversions print as written";
    EXPECT_EQ(Format("end%"), "end%");
}

using DbgPrintOutput = KernelTest;

// The log holds one entry per non-empty line; a sink receives each call verbatim.
TEST_F(DbgPrintOutput, GoesToTheLogByLineAndToTheSinkByCall) {
    std::vector<std::string> received;
    winsim::SetDebugSink([&](std::string_view text) { received.emplace_back(text); });
    DbgPrint("\nORNIX: %s 0x%x\nORNIX: second\n\n", "value", 16);
    DbgPrint("no newline");
    winsim::SetDebugSink(nullptr);
    EXPECT_EQ(received,
              (std::vector<std::string>{"\nORNIX: value 0x10\nORNIX: second\n\n", "no newline"}));
    EXPECT_EQ(winsim::DebugLog(),
              (std::vector<std::string>{"ORNIX: value 0x10", "ORNIX: second", "no newline"}));
}

}  // namespace
}  // namespace kerneltest
