/// Text for people and for programs that read it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Host {
/// Fit for a terminal: control characters become \xNN, the rest stays, whatever its encoding.
std::string MakePrintable(std::string_view text);
/// Valid UTF-8: each byte that is part of no character becomes U+FFFD.
std::string MakeUtf8(std::string_view bytes);
/// "a, b and c"; `last` stands before the last one.
std::string Join(std::vector<std::string> const & words, std::string_view last = "and");
/// In the unit that leaves one to four digits: "512 bytes", "91.6 MiB".
std::string FormatBytes(std::uint64_t bytes);
/// The system's words for an errno.
std::string DescribeError(int errorNumber);
}
