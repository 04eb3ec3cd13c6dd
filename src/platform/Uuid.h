#pragma once

#include "platform/Export.h"

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace almanor {

// A 128-bit identifier. Its text form is the canonical upper-case 36-character form.
class ALMANOR_EXPORT Uuid {
  public:
    using Bytes = std::array<unsigned char, 16>;

    constexpr Uuid() = default; // the nil UUID
    explicit constexpr Uuid(const Bytes& bytes) : bytes_(bytes) {}

    static Uuid random();
    // The same name always gives the same id (a name-based UUID, version 5, in a namespace of
    // this program's own): for records that carry no id of their own.
    static Uuid fromName(std::string_view name);
    // Accepts the 36-character form in either case; anything else is nullopt.
    static std::optional<Uuid> parse(std::string_view text);
    // For constants written in the source; a malformed literal is a programming error.
    static Uuid fromLiteral(std::string_view text);

    std::string uuidString() const;
    bool isNil() const;
    const Bytes& bytes() const { return bytes_; }

    friend bool operator==(const Uuid&, const Uuid&) = default;
    friend auto operator<=>(const Uuid&, const Uuid&) = default;

  private:
    Bytes bytes_{};
};

} // namespace almanor

template <> struct std::hash<almanor::Uuid> {
    std::size_t operator()(const almanor::Uuid& u) const noexcept;
};
