#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace almanor {

// The per-user defaults store: flat keys in one key file, read and written with GLib's GKeyFile.
// Every read sees the file as it is now (the tray and the command line share it); every write
// re-reads the file under a lock and replaces it atomically, so a concurrent writer's other keys
// are kept. In a damaged file only the lines that cannot be read are lost: the first reader keeps
// the file as it was under a name that no earlier copy has (settings.ini.corrupt, then
// .corrupt.1, ...), writes back the lines that could be read and names each line dropped, once.
// Keys whose group header was lost are read as keys of `group`, the one group the file holds.
class ALMANOR_EXPORT SettingsFile {
  public:
    explicit SettingsFile(std::filesystem::path file);
    ~SettingsFile();
    SettingsFile(const SettingsFile&) = delete;
    SettingsFile& operator=(const SettingsFile&) = delete;

    const std::filesystem::path& file() const { return file_; }

    // Values returned for keys the file does not have. Kept in memory only, never written.
    void registerDefaults(const std::map<std::string, std::string>& strings);

    std::optional<std::string> string(std::string_view key) const;
    std::int64_t integer(std::string_view key) const; // 0 when absent or not a number
    bool boolean(std::string_view key) const;         // false when absent or not a boolean

    // Keys with their new values; nullopt removes the key.
    using Changes = std::vector<std::pair<std::string, std::optional<std::string>>>;

    // Each write returns whether the file now holds it; a failure has been logged in one line.
    // The file and its folder are kept private to the user (0600 in 0700).
    bool setString(std::string_view key, std::string_view value);
    bool setInteger(std::string_view key, std::int64_t value);
    bool setBoolean(std::string_view key, bool value);
    bool remove(std::string_view key);
    // All of the changes in one write: the file gets every one of them or none.
    bool setStrings(const Changes& changes);

    // Whether the file changed on disk since the last call, by a writer other than this object.
    // What this object wrote itself is taken as seen; another writer's change counts even when it
    // puts back what this object wrote, or when a write of ours folded it in first.
    bool changedElsewhere();

    // The group that holds the keys inside the file.
    static constexpr const char* group = "com.vostrel.Almanor";

  private:
    struct Snapshot;
    struct Loaded;
    std::shared_ptr<const Snapshot> current() const;
    // The file's keys; a damaged file is repaired on the way, under the writers' lock (which the
    // caller holds when `locked`).
    Loaded load(bool keepComments, bool locked) const;
    // Keeps the damaged bytes aside and puts the readable lines in their place; false when either
    // could not be done, leaving the file as it is.
    bool replaceDamaged(const std::string& damaged, const std::string& readable) const;
    // Writes `text` as the key's raw value, or removes the key when nullopt.
    bool write(std::string_view key, std::optional<std::string> text);
    // Writes raw values (already in the key file's escapes).
    bool apply(const Changes& raw);

    void reportFailure(const std::string& why);

    std::filesystem::path file_;
    std::mutex failureMutex_;
    std::string lastFailure_; // the failure last told, until a write succeeds
    mutable std::mutex mutex_;
    mutable std::shared_ptr<const Snapshot> cache_;
    std::map<std::string, std::string, std::less<>> registered_;
    // For changedElsewhere: the file as last seen or written here, and whether another process
    // changed it in between (folded into a write of ours before we looked).
    struct Version;
    std::unique_ptr<Version> seen_;
    mutable bool news_ = false;
};

} // namespace almanor
