#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace almanor {

// The day count drawn as an icon, for panels that show a status item's icon but not its label.
// Panels load icons by name from a theme folder and cache both the folders' listings and the
// icons by name: each text gets a folder of its own (a new folder makes the panel look again) and
// a name of its own (a cached name is never a different number). Files are never changed once
// written; the folder is removed with this object.
class CountIcons {
  public:
    struct Icon {
        std::string name;                // IconName
        std::filesystem::path themePath; // IconThemePath: holds hicolor/scalable/apps/<name>.svg
    };

    // `folder` is this process's own: it is emptied now and removed at the end.
    explicit CountIcons(std::filesystem::path folder);
    ~CountIcons();
    CountIcons(const CountIcons&) = delete;
    CountIcons& operator=(const CountIcons&) = delete;

    // The icon showing `text`, written on first use. Throws std::filesystem::filesystem_error
    // when it cannot be written.
    Icon iconFor(std::string_view text);

    // The icon's drawing: `text` in white on a rounded square, as large as it fits.
    static std::string svg(std::string_view text);

  private:
    std::filesystem::path folder_;
};

} // namespace almanor
