#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace almanor::countIcon {

// The sizes drawn: what panels ask for, from 16 px panels to large ones; each picks the nearest.
inline constexpr std::array<int, 5> sizes{16, 22, 24, 32, 48};

// The day count as an icon of `size` x `size` pixels: `text` in white on a red rounded square, as
// large as it fits, in a small digit font of its own (no font files, no drawing library in the
// tray). ARGB32 in network byte order, rows from the top: what a StatusNotifierItem's IconPixmap
// carries, so a panel needs no file of this process (a sandbox has none to show). Characters other
// than digits, '-' and '!' are left blank.
std::vector<std::uint8_t> pixels(std::string_view text, int size);

} // namespace almanor::countIcon
