#include "platform/Uuid.h"

#include "platform/Fatal.h"

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

std::optional<Uuid> Uuid::parse(std::string_view text) {
    // The same form libuuid's uuid_parse accepts, without its strtoul per group: ids are parsed
    // for every row of every listing.
    if (text.size() != 36) {
        return std::nullopt;
    }
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    };
    Bytes b;
    std::size_t i = 0;
    for (std::size_t pos = 0; pos < 36;) {
        if (pos == 8 || pos == 13 || pos == 18 || pos == 23) {
            if (text[pos] != '-') {
                return std::nullopt;
            }
            ++pos;
            continue;
        }
        int hi = nibble(text[pos]);
        int lo = nibble(text[pos + 1]);
        if (hi < 0 || lo < 0) {
            return std::nullopt;
        }
        b[i++] = static_cast<unsigned char>(hi << 4 | lo);
        pos += 2;
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
