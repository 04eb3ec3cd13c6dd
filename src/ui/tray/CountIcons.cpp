#include "ui/tray/CountIcons.h"

#include <algorithm>
#include <cmath>

namespace almanor::countIcon {

namespace {

constexpr int glyphWidth = 3;
constexpr int glyphHeight = 5;
// Three bits a row, top row first.
constexpr std::array<std::array<std::uint8_t, glyphHeight>, 12> glyphs{{
    {7, 5, 5, 5, 7}, // 0
    {2, 6, 2, 2, 7}, // 1
    {7, 1, 7, 4, 7}, // 2
    {7, 1, 7, 1, 7}, // 3
    {5, 5, 7, 1, 1}, // 4
    {7, 4, 7, 1, 7}, // 5
    {7, 4, 7, 5, 7}, // 6
    {7, 1, 1, 1, 1}, // 7
    {7, 5, 7, 5, 7}, // 8
    {7, 5, 7, 1, 7}, // 9
    {0, 0, 7, 0, 0}, // -
    {2, 2, 2, 0, 2}, // !
}};

const std::array<std::uint8_t, glyphHeight>* glyph(char c) {
    if (c >= '0' && c <= '9') {
        return &glyphs[std::size_t(c - '0')];
    }
    if (c == '-') {
        return &glyphs[10];
    }
    if (c == '!') {
        return &glyphs[11];
    }
    return nullptr;
}

constexpr std::uint8_t red = 0xe0, green = 0x1b, blue = 0x24;
// Samples a pixel's side: edges get a coverage between 0 and 1.
constexpr int samples = 4;

} // namespace

std::vector<std::uint8_t> pixels(std::string_view text, int size) {
    const double side = size;
    const double radius = side * 0.2;
    // Glyphs one unit apart; the text takes the whole width and at most 70 % of the height. Whole
    // pixels per unit where they fit keep the digits sharp.
    const int columns = std::max<int>(int(text.size()) * (glyphWidth + 1) - 1, 1);
    double unit = std::min(side / columns, side * 0.7 / glyphHeight);
    if (unit >= 1.0) {
        unit = std::floor(unit);
    }
    const double left = std::round((side - unit * columns) / 2);
    const double top = std::round((side - unit * glyphHeight) / 2);

    auto inSquare = [&](double x, double y) {
        // The corners' circles; elsewhere the square itself.
        const double cx = std::clamp(x, radius, side - radius);
        const double cy = std::clamp(y, radius, side - radius);
        return (x - cx) * (x - cx) + (y - cy) * (y - cy) <= radius * radius;
    };
    auto inText = [&](double x, double y) {
        const int column = int(std::floor((x - left) / unit));
        const int row = int(std::floor((y - top) / unit));
        if (x < left || y < top || column >= columns || row >= glyphHeight) {
            return false;
        }
        const auto* rows = glyph(text[std::size_t(column / (glyphWidth + 1))]);
        const int bit = column % (glyphWidth + 1);
        return rows != nullptr && bit < glyphWidth &&
               ((*rows)[std::size_t(row)] >> (glyphWidth - 1 - bit) & 1) != 0;
    };

    std::vector<std::uint8_t> out(std::size_t(size) * std::size_t(size) * 4);
    auto* pixel = out.data();
    for (int py = 0; py < size; ++py) {
        for (int px = 0; px < size; ++px) {
            int covered = 0;
            int lit = 0;
            for (int sy = 0; sy < samples; ++sy) {
                for (int sx = 0; sx < samples; ++sx) {
                    const double x = px + (sx + 0.5) / samples;
                    const double y = py + (sy + 0.5) / samples;
                    if (inSquare(x, y)) {
                        ++covered;
                        lit += inText(x, y) ? 1 : 0;
                    }
                }
            }
            // Colours as they are under a partial alpha (not premultiplied): white over red.
            auto mix = [&](std::uint8_t base) {
                return covered == 0 ? std::uint8_t(0)
                                    : std::uint8_t(base + (255 - base) * lit / covered);
            };
            pixel[0] = std::uint8_t(255 * covered / (samples * samples));
            pixel[1] = mix(red);
            pixel[2] = mix(green);
            pixel[3] = mix(blue);
            pixel += 4;
        }
    }
    return out;
}

} // namespace almanor::countIcon
