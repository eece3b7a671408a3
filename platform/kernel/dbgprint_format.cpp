// The kernel's printf dialect for DbgPrint: LLP64 lengths (%l is 32-bit),
// Microsoft's I64/I32/I modifiers, 16-bit strings (%ws, %S, %wZ) and
// upper-case pointers at full width. Unknown conversions print literally.
#include "kernel/dbgprint.h"
#include "kernel/kernel.h"
#include "kernel/win_var_args.h"

#include <cstdint>
#include <string>

namespace winsim {
namespace {

enum class Length { Default, Char, Short, Long, LongLong, Int64, Int32, Pointer, Size, Wide };

struct Spec {
    bool leftAlign = false;
    bool zeroPad = false;
    bool plusSign = false;
    bool spaceSign = false;
    bool alternate = false;
    int width = 0;
    int precision = -1;  // none
    Length length = Length::Default;
};

// The ANSI counterpart of UNICODE_STRING, for %Z.
struct AnsiString {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
};

void Pad(std::string& out, const Spec& spec, std::string_view body) {
    size_t fill = spec.width > int(body.size()) ? spec.width - body.size() : 0;
    if (!spec.leftAlign)
        out.append(fill, ' ');
    out.append(body);
    if (spec.leftAlign)
        out.append(fill, ' ');
}

void AppendUtf8(std::string& out, uint32_t codePoint) {
    if (codePoint < 0x80) {
        out += char(codePoint);
    } else if (codePoint < 0x800) {
        out += char(0xC0 | (codePoint >> 6));
        out += char(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        out += char(0xE0 | (codePoint >> 12));
        out += char(0x80 | ((codePoint >> 6) & 0x3F));
        out += char(0x80 | (codePoint & 0x3F));
    } else {
        out += char(0xF0 | (codePoint >> 18));
        out += char(0x80 | ((codePoint >> 12) & 0x3F));
        out += char(0x80 | ((codePoint >> 6) & 0x3F));
        out += char(0x80 | (codePoint & 0x3F));
    }
}

// UTF-16 to UTF-8; unpaired surrogates become '?'.
std::string FromUtf16(const char16_t* text, size_t units) {
    std::string out;
    for (size_t i = 0; i < units; ++i) {
        uint32_t unit = text[i];
        if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < units && text[i + 1] >= 0xDC00 &&
            text[i + 1] < 0xE000) {
            AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00));
            ++i;
        } else if (unit >= 0xD800 && unit < 0xE000) {
            out += '?';
        } else {
            AppendUtf8(out, unit);
        }
    }
    return out;
}

size_t Utf16Length(const char16_t* text, int limit) {
    size_t units = 0;
    while ((limit < 0 || units < size_t(limit)) && text[units] != 0)
        ++units;
    return units;
}

std::string Digits(uint64_t value, unsigned base, bool upper) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text;
    do {
        text.insert(text.begin(), digits[value % base]);
        value /= base;
    } while (value != 0);
    return text;
}

void FormatInteger(std::string& out, const Spec& spec, uint64_t magnitude, bool negative,
                   char conversion) {
    unsigned base = conversion == 'o' ? 8 : (conversion == 'x' || conversion == 'X') ? 16 : 10;
    std::string digits = (spec.precision == 0 && magnitude == 0)
                             ? std::string()
                             : Digits(magnitude, base, conversion == 'X');
    if (spec.precision > int(digits.size()))
        digits.insert(0, spec.precision - digits.size(), '0');

    std::string prefix;
    if (conversion == 'd' || conversion == 'i') {
        prefix = negative ? "-" : spec.plusSign ? "+" : spec.spaceSign ? " " : "";
    } else if (spec.alternate && base == 16 && magnitude != 0) {
        prefix = conversion == 'X' ? "0X" : "0x";
    } else if (spec.alternate && base == 8 && (digits.empty() || digits[0] != '0')) {
        prefix = "0";
    }

    int used = int(prefix.size() + digits.size());
    if (spec.zeroPad && !spec.leftAlign && spec.precision < 0 && spec.width > used) {
        digits.insert(0, spec.width - used, '0');
    }
    Pad(out, spec, prefix + digits);
}

// Args reads the next argument of a given type: from a va_list, or from the
// argument slots of a Windows-convention caller.
template <class Args>
class Formatter {
  public:
    explicit Formatter(Args& args) : args_(args) {}
    Formatter(const Formatter&) = delete;
    Formatter& operator=(const Formatter&) = delete;

    std::string Run(const char* format) {
        std::string out;
        const char* p = format;
        while (*p != '\0') {
            if (*p != '%') {
                out += *p++;
                continue;
            }
            const char* start = p++;
            Spec spec = ParseSpec(p);
            char conversion = *p;
            if (conversion == '\0') {
                out.append(start);
                break;
            }
            ++p;
            if (!Convert(out, spec, conversion))
                out.append(start, p);
            else if (unicode_.empty() && IsUnicode(spec, conversion))
                unicode_.assign(start, p);
        }
        return out;
    }

    // The first conversion that read a 16-bit string or character, if any.
    const std::string& Unicode() const { return unicode_; }

  private:
    static bool IsUnicode(const Spec& spec, char conversion) {
        bool wideLength = spec.length == Length::Long || spec.length == Length::Wide;
        switch (conversion) {
            case 's':
            case 'c':
            case 'Z':
                return wideLength;
            case 'S':
            case 'C':
                return spec.length != Length::Short;
            default:
                return false;
        }
    }

    Spec ParseSpec(const char*& p) {
        Spec spec;
        for (;; ++p) {
            if (*p == '-') {
                spec.leftAlign = true;
            } else if (*p == '0') {
                spec.zeroPad = true;
            } else if (*p == '+') {
                spec.plusSign = true;
            } else if (*p == ' ') {
                spec.spaceSign = true;
            } else if (*p == '#') {
                spec.alternate = true;
            } else {
                break;
            }
        }
        if (*p == '*') {
            int width = args_.template Next<int>();
            if (width < 0) {
                spec.leftAlign = true;
                width = -width;
            }
            spec.width = width;
            ++p;
        } else {
            while (*p >= '0' && *p <= '9')
                spec.width = spec.width * 10 + (*p++ - '0');
        }
        if (*p == '.') {
            ++p;
            spec.precision = 0;
            if (*p == '*') {
                int precision = args_.template Next<int>();
                spec.precision = precision < 0 ? -1 : precision;
                ++p;
            } else {
                while (*p >= '0' && *p <= '9')
                    spec.precision = spec.precision * 10 + (*p++ - '0');
            }
        }
        spec.length = ParseLength(p);
        return spec;
    }

    static Length ParseLength(const char*& p) {
        auto take = [&](std::string_view token) {
            if (std::string_view(p).substr(0, token.size()) != token)
                return false;
            p += token.size();
            return true;
        };
        if (take("I64"))
            return Length::Int64;
        if (take("I32"))
            return Length::Int32;
        if (take("I"))
            return Length::Pointer;
        if (take("hh"))
            return Length::Char;
        if (take("h"))
            return Length::Short;
        if (take("ll"))
            return Length::LongLong;
        if (take("l"))
            return Length::Long;
        if (take("w"))
            return Length::Wide;
        if (take("z"))
            return Length::Size;
        return Length::Default;
    }

    int64_t SignedArgument(Length length) {
        switch (length) {
            case Length::Char:
                return static_cast<signed char>(args_.template Next<int>());
            case Length::Short:
                return static_cast<short>(args_.template Next<int>());
            case Length::LongLong:
            case Length::Int64:
                return args_.template Next<long long>();
            case Length::Pointer:
            case Length::Size:
                return args_.template Next<intptr_t>();
            default:  // int, and LONG is 32-bit on Windows
                return args_.template Next<int>();
        }
    }

    uint64_t UnsignedArgument(Length length) {
        switch (length) {
            case Length::Char:
                return static_cast<unsigned char>(args_.template Next<unsigned>());
            case Length::Short:
                return static_cast<unsigned short>(args_.template Next<unsigned>());
            case Length::LongLong:
            case Length::Int64:
                return args_.template Next<unsigned long long>();
            case Length::Pointer:
            case Length::Size:
                return args_.template Next<uintptr_t>();
            default:
                return args_.template Next<unsigned>();
        }
    }

    void NarrowString(std::string& out, const Spec& spec) {
        const char* text = args_.template Next<const char*>();
        if (text == nullptr)
            return Pad(out, spec, "(null)");
        std::string_view view(text);
        if (spec.precision >= 0)
            view = view.substr(0, spec.precision);
        Pad(out, spec, view);
    }

    void WideString(std::string& out, const Spec& spec) {
        const auto* text = args_.template Next<const char16_t*>();
        if (text == nullptr)
            return Pad(out, spec, "(null)");
        Pad(out, spec, FromUtf16(text, Utf16Length(text, spec.precision)));
    }

    void CountedString(std::string& out, const Spec& spec, bool wide) {
        if (wide) {
            const auto* string = args_.template Next<const UNICODE_STRING*>();
            if (string == nullptr || string->Buffer == nullptr)
                return Pad(out, spec, "(null)");
            size_t units = string->Length / sizeof(WCHAR);
            if (spec.precision >= 0 && units > size_t(spec.precision))
                units = spec.precision;
            Pad(out, spec, FromUtf16(reinterpret_cast<const char16_t*>(string->Buffer), units));
        } else {
            const auto* string = args_.template Next<const AnsiString*>();
            if (string == nullptr || string->Buffer == nullptr)
                return Pad(out, spec, "(null)");
            std::string_view view(string->Buffer, string->Length);
            if (spec.precision >= 0)
                view = view.substr(0, spec.precision);
            Pad(out, spec, view);
        }
    }

    void Character(std::string& out, const Spec& spec, bool wide) {
        int value = args_.template Next<int>();
        std::string text;
        if (wide) {
            char16_t unit = static_cast<char16_t>(value);
            text = FromUtf16(&unit, 1);
        } else {
            text = std::string(1, static_cast<char>(value));
        }
        Pad(out, spec, text);
    }

    // False for a conversion the kernel does not know: it prints as written.
    bool Convert(std::string& out, const Spec& spec, char conversion) {
        bool wideLength = spec.length == Length::Long || spec.length == Length::Wide;
        switch (conversion) {
            case 'd':
            case 'i': {
                int64_t value = SignedArgument(spec.length);
                uint64_t magnitude = value < 0 ? 0 - uint64_t(value) : uint64_t(value);
                FormatInteger(out, spec, magnitude, value < 0, conversion);
                return true;
            }
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                FormatInteger(out, spec, UnsignedArgument(spec.length), false, conversion);
                return true;
            case 'p': {
                auto value = reinterpret_cast<uintptr_t>(args_.template Next<void*>());
                std::string digits = Digits(value, 16, true);
                digits.insert(0, 2 * sizeof(void*) - digits.size(), '0');
                Pad(out, spec, digits);
                return true;
            }
            case 'c':
                Character(out, spec, wideLength);
                return true;
            case 'C':
                Character(out, spec, spec.length != Length::Short);
                return true;
            case 's':
                wideLength ? WideString(out, spec) : NarrowString(out, spec);
                return true;
            case 'S':
                spec.length == Length::Short ? NarrowString(out, spec) : WideString(out, spec);
                return true;
            case 'Z':
                CountedString(out, spec, wideLength);
                return true;
            case '%':
                out += '%';
                return true;
            default:
                return false;
        }
    }

    Args& args_;
    std::string unicode_;
};

template <class Args>
std::string FormatNotingUnicode(const char* format, Args& args, std::string& unicode) {
    if (format == nullptr)
        return {};
    Formatter<Args> formatter(args);
    std::string text = formatter.Run(format);
    unicode = formatter.Unicode();
    return text;
}

}  // namespace

std::string FormatDbgPrint(const char* format, va_list args) {
    std::string unicode;
    VaListArgs source(args);
    return FormatNotingUnicode(format, source, unicode);
}

namespace kernel {

std::string FormatDbgPrintNotingUnicode(const char* format, WinVarArgs& args,
                                        std::string& unicode) {
    return FormatNotingUnicode(format, args, unicode);
}

}  // namespace kernel

}  // namespace winsim
