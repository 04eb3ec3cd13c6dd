#pragma once

#include "platform/Export.h"

#include <optional>
#include <string>

namespace almanor {

// The title-bearing item the user sees: the tray's indicator, or what the command line prints.
class ALMANOR_EXPORT StatusItem {
  public:
    virtual ~StatusItem() = default;
    virtual void setTitle(const std::string& title) = 0;
    // The signed day count behind the title, none when no event is shown. Items that show only
    // text ignore it; a panel icon may draw it.
    virtual void setDayCount(std::optional<int> /*days*/) {}
};

// A status item that only remembers, for the command line and for tests.
class ALMANOR_EXPORT RecordedStatusItem final : public StatusItem {
  public:
    void setTitle(const std::string& title) override { title_ = title; }
    const std::string& title() const { return title_; }

  private:
    std::string title_;
};

} // namespace almanor
