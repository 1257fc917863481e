#include "kernel/AppendFormat.h"

#include "kernel/ConvertEnc.h"

namespace Kernel {
namespace {
// Appends what a percent sign and the character behind it stand for. @return false if for nothing.
bool AppendPlaceholder(std::string & dest, char next, std::span<FormatArgument const> arguments) {
    if (next == '%') {
        dest += '%';
        return true;
    }
    if (next < '1' || next > '9' || static_cast<std::size_t>(next - '1') >= arguments.size())
        return false;
    arguments[static_cast<std::size_t>(next - '1')].AppendTo(dest);
    return true;
}
}

void AppendFormat(std::string & dest, std::string_view format, std::span<FormatArgument const> arguments) {
    while (!format.empty()) {
        auto const percent = format.find('%');
        dest += format.substr(0, percent);
        if (percent == format.npos)
            return;
        format.remove_prefix(percent);
        if (format.size() > 1 && AppendPlaceholder(dest, format[1], arguments)) {
            format.remove_prefix(2);
        } else {
            dest += '%';
            format.remove_prefix(1);
        }
    }
}

void AppendFormat(StringUtf8 & dest, std::string_view format, std::span<FormatArgument const> arguments) {
    std::string text(dest.GetView());
    AppendFormat(text, format, arguments);
    dest = StringUtf8(text);
}

void AppendFormat(StringUtf16 & dest, std::u16string_view format, std::span<FormatArgument const> arguments) {
    std::string text;
    AppendFormat(text, ConvertEnc<TEncUtf8, TEncUtf16>(format).GetView(), arguments);
    dest += ConvertEnc<TEncUtf16, TEncUtf8>(std::string_view(text));
}
}
