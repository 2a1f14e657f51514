// Reading the text of HTTP field values: the blanks around them and the decimal numbers in them.
#pragma once

#include <cstdint>
#include <string_view>

namespace quire_server {

/// Returns `text` without the spaces and tabs at its start and end.
std::string_view TrimBlanks(std::string_view text);

/// Reads `text` as 1 to 19 decimal digits and nothing else, so that the value always fits in 64
/// bits. Returns false (leaving `*value` alone) for anything else, longer runs included.
bool ParseDecimal(std::string_view text, std::uint64_t* value);

/// Reads `text` as a non-empty run of decimal digits of any length; a value beyond 64 bits
/// saturates at the largest one (for positions, which are then beyond any content). Returns false
/// (leaving `*value` alone) when `text` is empty or holds anything but digits.
bool ParseDecimalSaturating(std::string_view text, std::uint64_t* value);

}  // namespace quire_server
