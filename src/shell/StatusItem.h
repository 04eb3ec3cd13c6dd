#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace almanor {

// The title-bearing item the user sees: the tray's indicator, or what the command line prints.
class StatusItem {
  public:
    virtual ~StatusItem() = default;
    virtual void setTitle(const std::string& title) = 0;
    // The hash of the displayed event's id; nothing reads it back.
    virtual void setTag(std::size_t tag) = 0;
    // The signed day count behind the title, none when no event is shown. Items that show only
    // text ignore it; a panel icon may draw it.
    virtual void setDayCount(std::optional<int> /*days*/) {}
};

// A status item that only remembers, for the command line and for tests.
class RecordedStatusItem final : public StatusItem {
  public:
    void setTitle(const std::string& title) override { title_ = title; }
    void setTag(std::size_t tag) override { tag_ = tag; }
    const std::string& title() const { return title_; }
    std::size_t tag() const { return tag_; }

  private:
    std::string title_;
    std::size_t tag_ = 0;
};

} // namespace almanor
