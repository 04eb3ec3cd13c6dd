#include "platform/Uuid.h"

#include "platform/Fatal.h"

#include <cstring>
#include <uuid/uuid.h>

namespace almanor {

Uuid Uuid::random() {
    Bytes b;
    uuid_generate_random(b.data());
    return Uuid(b);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) {
        return std::nullopt;
    }
    char buffer[37];
    std::memcpy(buffer, text.data(), 36);
    buffer[36] = '\0';
    Bytes b;
    if (uuid_parse(buffer, b.data()) != 0) {
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

bool Uuid::isNil() const { return *this == Uuid(); }

} // namespace almanor

std::size_t std::hash<almanor::Uuid>::operator()(const almanor::Uuid& u) const noexcept {
    // FNV-1a over the bytes: stable across runs, unlike a pointer-based hash.
    std::size_t h = 1469598103934665603ULL;
    for (unsigned char c : u.bytes()) {
        h = (h ^ c) * 1099511628211ULL;
    }
    return h;
}
