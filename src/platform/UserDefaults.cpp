#include "platform/UserDefaults.h"

#include "platform/Log.h"
#include "platform/Paths.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace almanor {

namespace {

struct KeyFileDeleter {
    void operator()(GKeyFile* k) const noexcept { g_key_file_free(k); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileDeleter>;

struct ErrorDeleter {
    void operator()(GError* e) const noexcept { g_error_free(e); }
};
using Error = std::unique_ptr<GError, ErrorDeleter>;

struct GFreeDeleter {
    void operator()(gchar* p) const noexcept { g_free(p); }
};
using GString_ = std::unique_ptr<gchar, GFreeDeleter>;

// What identifies one version of the file on disk.
struct Identity {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec mtime{};
    bool operator==(const Identity& o) const {
        return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
               mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

Identity identityOf(const std::filesystem::path& file) {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) {
        return {};
    }
    return {true, st.st_dev, st.st_ino, st.st_size, st.st_mtim};
}

// Loads the file; a missing file is an empty store, an unreadable one is reported and empty.
KeyFile load(const std::filesystem::path& file, bool keepComments, bool* unreadable = nullptr) {
    KeyFile k(g_key_file_new());
    GError* raw = nullptr;
    auto flags = keepComments
                     ? GKeyFileFlags(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS)
                     : G_KEY_FILE_NONE;
    if (!g_key_file_load_from_file(k.get(), file.c_str(), flags, &raw)) {
        Error error(raw);
        if (!(error->domain == G_FILE_ERROR && error->code == G_FILE_ERROR_NOENT)) {
            Log::line("Ignoring settings file " + file.string() + ": " + error->message);
            if (unreadable != nullptr) {
                *unreadable = true;
            }
        }
        return KeyFile(g_key_file_new());
    }
    return k;
}

// Serialises writers of the same file across processes: a lock on its folder, which leaves no
// lock file behind.
class FileLock {
  public:
    explicit FileLock(const std::filesystem::path& folder)
        : fd_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (fd_ >= 0) {
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
        }
    }
    ~FileLock() {
        if (fd_ >= 0) {
            ::close(fd_); // closing releases the lock
        }
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

  private:
    int fd_;
};

} // namespace

// A version of the file is its content: file identities repeat when writes come fast (inode numbers
// are reused, timestamps are coarse), the bytes do not.
struct UserDefaults::Version {
    std::optional<std::string> content; // none: no file

    static std::optional<std::string> read(const std::filesystem::path& file) {
        gchar* text = nullptr;
        gsize length = 0;
        if (!g_file_get_contents(file.c_str(), &text, &length, nullptr)) {
            return std::nullopt;
        }
        std::string content(text, length);
        g_free(text);
        return content;
    }
};

struct UserDefaults::Snapshot {
    Identity identity;
    KeyFile keys;
};

UserDefaults::UserDefaults(std::filesystem::path file)
    : file_(std::move(file)), written_(std::make_unique<Version>()),
      seen_(std::make_unique<Version>(Version{Version::read(file_)})) {}
UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standard() {
    static UserDefaults defaults(paths::settingsFile());
    return defaults;
}

void UserDefaults::registerDefaults(const std::map<std::string, std::string>& strings) {
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : strings) {
        registered_[key] = value;
    }
}

std::shared_ptr<const UserDefaults::Snapshot> UserDefaults::current() const {
    Identity now = identityOf(file_);
    std::lock_guard lock(mutex_);
    if (!cache_ || !(cache_->identity == now)) {
        auto s = std::make_shared<Snapshot>();
        s->identity = now;
        s->keys = now.exists ? load(file_, false) : KeyFile(g_key_file_new());
        cache_ = std::move(s);
    }
    return cache_;
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
    auto snapshot = current();
    std::string k(key);
    GString_ value(g_key_file_get_string(snapshot->keys.get(), group, k.c_str(), nullptr));
    if (value) {
        return std::string(value.get());
    }
    std::lock_guard lock(mutex_);
    if (auto it = registered_.find(key); it != registered_.end()) {
        return it->second;
    }
    return std::nullopt;
}

std::int64_t UserDefaults::integer(std::string_view key) const {
    auto snapshot = current();
    std::string k(key);
    GError* raw = nullptr;
    gint64 value = g_key_file_get_int64(snapshot->keys.get(), group, k.c_str(), &raw);
    if (raw != nullptr) {
        g_error_free(raw);
        return 0;
    }
    return value;
}

bool UserDefaults::boolean(std::string_view key) const {
    auto snapshot = current();
    std::string k(key);
    GError* raw = nullptr;
    gboolean value = g_key_file_get_boolean(snapshot->keys.get(), group, k.c_str(), &raw);
    if (raw != nullptr) {
        g_error_free(raw);
        return false;
    }
    return value != FALSE;
}

void UserDefaults::setString(std::string_view key, std::string_view value) {
    KeyFile scratch(g_key_file_new());
    std::string v(value);
    g_key_file_set_string(scratch.get(), group, "k", v.c_str());
    GString_ text(g_key_file_get_value(scratch.get(), group, "k", nullptr));
    write(key, std::string(text.get()));
}

void UserDefaults::setInteger(std::string_view key, std::int64_t value) {
    write(key, std::to_string(value));
}

void UserDefaults::setBoolean(std::string_view key, bool value) {
    write(key, value ? "true" : "false");
}

void UserDefaults::remove(std::string_view key) {
    write(key, std::nullopt);
}

void UserDefaults::write(std::string_view key, std::optional<std::string> text) {
    // Writing the value the file holds already changes nothing: the lock and the reread are
    // spared (the command line writes the selection back on every run).
    if (text) {
        auto snapshot = current();
        std::string k(key);
        GString_ old(g_key_file_get_value(snapshot->keys.get(), group, k.c_str(), nullptr));
        if (old && *text == old.get()) {
            return;
        }
    }
    std::error_code ec;
    std::filesystem::create_directories(file_.parent_path(), ec);
    if (ec) {
        Log::line("Failed to save settings to " + file_.string() + ": " + ec.message());
        return;
    }
    FileLock lock(file_.parent_path());

    bool unreadable = false;
    KeyFile keys = load(file_, true, &unreadable);
    if (unreadable) {
        // Keep what could not be read rather than overwrite it silently.
        std::filesystem::path aside = file_.string() + ".corrupt";
        std::filesystem::rename(file_, aside, ec);
        if (!ec) {
            Log::line("The unreadable settings file was kept as " + aside.string());
        }
    }

    std::string k(key);
    GString_ old(g_key_file_get_value(keys.get(), group, k.c_str(), nullptr));
    if (text ? (old && *text == old.get()) : !old) {
        return; // unchanged: spare the disk a rewrite
    }
    if (text) {
        g_key_file_set_value(keys.get(), group, k.c_str(), text->c_str());
    } else {
        g_key_file_remove_key(keys.get(), group, k.c_str(), nullptr);
    }
    gsize length = 0;
    GString_ data(g_key_file_to_data(keys.get(), &length, nullptr));
    GError* raw = nullptr;
    if (!g_file_set_contents(file_.c_str(), data.get(), gssize(length), &raw)) {
        Error error(raw);
        Log::line("Failed to save settings to " + file_.string() + ": " + error->message);
    }
    std::lock_guard guard(mutex_);
    cache_.reset();
    written_->content = std::string(data.get(), length);
}

bool UserDefaults::changedElsewhere() {
    auto now = Version::read(file_);
    std::lock_guard guard(mutex_);
    bool changed = now != seen_->content && now != written_->content;
    seen_->content = std::move(now);
    return changed;
}

} // namespace almanor
