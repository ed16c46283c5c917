// Text in the records' byte arrays, and text that is safe to show.
// For all programs; docs/fields.md says which fields hold text.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kel::host {

// Fills field with text and NULs behind it. Text that is too long is cut so that no UTF-8 character
// is left in halves; text that fills the field has no NUL.
void putText(std::span<uint8_t> field, std::string_view text);

// As much of text as has room in so many bytes, without half a UTF-8 character at the end.
std::string_view startOf(std::string_view text, size_t bytes);

// The text up to the first NUL or the field's end, as it arrived: to compare, not to show.
std::string rawTextOf(std::span<const uint8_t> field);

// The same, fit to be shown.
std::string textOf(std::span<const uint8_t> field);

// Received text with every control character replaced, those of Unicode beyond ASCII too, whatever
// turns the direction of writing, and every byte that is of no UTF-8 character, so that it cannot
// steer a terminal.
std::string shown(std::string_view text);

}  // namespace kel::host
