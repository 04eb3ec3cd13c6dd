#include "platform/Uuid.h"

#include "platform/Fatal.h"

#include <array>
#include <uuid/uuid.h>

namespace almanor {

Uuid Uuid::random() {
    Bytes b;
    uuid_generate_random(b.data());
    return Uuid(b);
}

Uuid Uuid::fromName(std::string_view name) {
    // A fixed random namespace: ids derived here never collide with another program's.
    static constexpr Bytes space = {0x6b, 0x1f, 0x3c, 0x52, 0x9e, 0x0d, 0x4a, 0x87,
                                    0xb2, 0x44, 0x1d, 0x7a, 0x90, 0xc3, 0x5e, 0x21};
    Bytes b;
    uuid_generate_sha1(b.data(), space.data(), name.data(), name.size());
    return Uuid(b);
}

namespace {

// Each character's hex value, 16 for anything else.
constexpr std::array<unsigned char, 256> hexValues = [] {
    std::array<unsigned char, 256> v{};
    v.fill(16);
    for (unsigned char c = 0; c < 10; ++c) {
        v[std::size_t{'0'} + c] = c;
    }
    for (unsigned char c = 0; c < 6; ++c) {
        v[std::size_t{'a'} + c] = v[std::size_t{'A'} + c] = static_cast<unsigned char>(10 + c);
    }
    return v;
}();

// Where each byte's two digits start in the text form.
constexpr std::array<std::size_t, 16> digitPositions = {0,  2,  4,  6,  9,  11, 14, 16,
                                                        19, 21, 24, 26, 28, 30, 32, 34};

} // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
    // The same form libuuid's uuid_parse accepts, without its strtoul per group: ids are parsed
    // for every row of every listing.
    if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' ||
        text[23] != '-') {
        return std::nullopt;
    }
    Bytes b;
    unsigned bad = 0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        unsigned hi = hexValues[static_cast<unsigned char>(text[digitPositions[i]])];
        unsigned lo = hexValues[static_cast<unsigned char>(text[digitPositions[i] + 1])];
        bad |= (hi | lo) & 16U;
        b[i] = static_cast<unsigned char>(hi << 4 | (lo & 15U));
    }
    if (bad != 0) {
        return std::nullopt;
    }
    return Uuid(b);
}

Uuid Uuid::fromLiteral(std::string_view text) {
    auto u = parse(text);
    if (!u) {
        fatalError("Almanor/Uuid", __LINE__, "Malformed UUID literal " + std::string(text));
    }
    return *u;
}

std::string Uuid::uuidString() const {
    char buffer[37];
    uuid_unparse_upper(bytes_.data(), buffer);
    return std::string(buffer, 36);
}

bool Uuid::isNil() const {
    return *this == Uuid();
}

} // namespace almanor

std::size_t std::hash<almanor::Uuid>::operator()(const almanor::Uuid& u) const noexcept {
    // FNV-1a over the bytes: stable across runs, unlike a pointer-based hash.
    std::size_t h = 1469598103934665603ULL;
    for (unsigned char c : u.bytes()) {
        h = (h ^ c) * 1099511628211ULL;
    }
    return h;
}
