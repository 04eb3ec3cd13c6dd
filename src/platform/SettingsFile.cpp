#include "platform/SettingsFile.h"

#include "platform/FileLock.h"
#include "platform/GlibOwners.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/Translation.h"
#include "platform/WriteAll.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace almanor {

namespace {

using KeyFile = glib::Owner<GKeyFile, g_key_file_free>;
using Error = glib::Error;
using GString_ = glib::Chars;

// The file holds the account and the command that yields its password.
constexpr int privateMode = 0600;

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

// The file's bytes: none when there is no file, and with `error` set when it cannot be read.
struct FileText {
    std::optional<std::string> bytes;
    std::string error;
};

FileText readFile(const std::filesystem::path& file) {
    glib::Chars text;
    gsize length = 0;
    Error error;
    if (!g_file_get_contents(file.c_str(), glib::out(text), &length, glib::out(error))) {
        if (error->domain == G_FILE_ERROR && error->code == G_FILE_ERROR_NOENT) {
            return {};
        }
        return {std::nullopt, error->message};
    }
    return {std::string(text.get(), length), {}};
}

// The keys of `text`, or none when GKeyFile cannot read all of it.
KeyFile parse(std::string_view text, GKeyFileFlags flags) {
    KeyFile k(g_key_file_new());
    if (!g_key_file_load_from_data(k.get(), text.data(), text.size(), flags, nullptr)) {
        return nullptr;
    }
    return k;
}

bool parses(const std::string& text) {
    return parse(text, G_KEY_FILE_NONE) != nullptr;
}

// What is left of a damaged file: the lines that GKeyFile reads, each judged on its own, and one
// message per line dropped.
struct Salvage {
    std::string text;
    std::vector<std::string> dropped;
};

// Beyond these many, dropped lines are counted in one message: a binary file is no list of lines.
constexpr std::size_t reportedLines = 5;

// The file holds our one group, so keys whose header was lost (damaged, or the first line gone)
// are read as keys of `ownGroup` rather than dropped.
Salvage salvage(std::string_view text, const std::filesystem::path& file,
                std::string_view ownGroup) {
    Salvage result;
    std::size_t unreported = 0;
    auto drop = [&](std::size_t number, const char* why) {
        if (result.dropped.size() < reportedLines) {
            result.dropped.push_back(formatText(_("Settings file %s: line %zu dropped: %s"),
                                                {file.string(), std::to_string(number), _(why)}));
        } else {
            ++unreported;
        }
    };
    bool inGroup = false;
    for (std::size_t number = 1; !text.empty(); ++number) {
        std::size_t end = text.find('\n');
        std::string line(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        std::size_t start = 0;
        while (start < line.size() && g_ascii_isspace(line[start])) {
            ++start;
        }
        if (start < line.size() && line[start] == '[') {
            inGroup = parses(line + "\n");
            if (!inGroup) {
                drop(number, N_("a damaged group header"));
                continue;
            }
        } else if (start < line.size() && line[start] != '#') {
            if (!parses("[g]\n" + line + "\n")) {
                drop(number, N_("not a key, group or comment"));
                continue;
            }
            if (!inGroup) {
                result.text += "[" + std::string(ownGroup) + "]\n";
                inGroup = true;
            }
        }
        result.text += line + "\n";
    }
    if (unreported > 0) {
        // TRANSLATORS: never fewer than one; English keeps "lines" for one as well.
        result.dropped.push_back(
            formatText(P_("Settings file %s: %zu more damaged lines dropped",
                          "Settings file %s: %zu more damaged lines dropped", unreported),
                       {file.string(), std::to_string(unreported)}));
    }
    if (!parses(result.text)) {
        result.text.clear(); // lines fine on their own that GKeyFile refuses together
    }
    return result;
}

// Keeps the file as it is under the first free name of name.corrupt, name.corrupt.1, ...: an
// earlier copy is never replaced. A hard link keeps the very bytes, even of a file that cannot be
// read; where the file system has no links, `bytes` is written out instead.
std::optional<std::filesystem::path> keepAside(const std::filesystem::path& file,
                                               const std::string* bytes, std::string& error) {
    for (int n = 0; n < 1000; ++n) {
        std::filesystem::path aside = file.string() + ".corrupt";
        if (n > 0) {
            aside += "." + std::to_string(n);
        }
        if (::link(file.c_str(), aside.c_str()) == 0) {
            return aside;
        }
        if (errno == EEXIST) {
            continue;
        }
        if (bytes == nullptr || (errno != EPERM && errno != ENOTSUP && errno != EOPNOTSUPP)) {
            error = std::strerror(errno);
            return std::nullopt;
        }
        int fd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0 && errno == EEXIST) {
            continue;
        }
        if (fd < 0) {
            error = std::strerror(errno);
            return std::nullopt;
        }
        if (!writeAll(fd, *bytes) || ::fsync(fd) != 0) {
            error = std::strerror(errno);
            ::close(fd);
            ::unlink(aside.c_str());
            return std::nullopt;
        }
        ::close(fd);
        return aside;
    }
    error = _("no free name for a copy");
    return std::nullopt;
}

} // namespace

// A version of the file is its content: file identities repeat when writes come fast (inode numbers
// are reused, timestamps are coarse), the bytes do not.
struct SettingsFile::Version {
    std::optional<std::string> content; // none: no file

    static std::optional<std::string> read(const std::filesystem::path& file) {
        glib::Chars text;
        gsize length = 0;
        if (!g_file_get_contents(file.c_str(), glib::out(text), &length, nullptr)) {
            return std::nullopt;
        }
        return std::string(text.get(), length);
    }
};

struct SettingsFile::Snapshot {
    Identity identity;
    KeyFile keys;
};

struct SettingsFile::Loaded {
    KeyFile keys;
    bool settled; // false: a damaged or unreadable file that could not be kept aside
};

SettingsFile::SettingsFile(std::filesystem::path file) : file_(std::move(file)), seen_(nullptr) {
    // The bytes read to tell later changes from this process's own are the first snapshot too,
    // so the file is read once. The identity is taken first: a change in between is newer than
    // that identity, and is read again on the first look.
    Identity identity = identityOf(file_);
    if (identity.exists) {
        (void)paths::makePrivateFolder(file_.parent_path()); // writes report failures
    }
    seen_ = std::make_unique<Version>(Version{Version::read(file_)});
    if (identity.exists && seen_->content) {
        if (KeyFile keys = parse(*seen_->content, G_KEY_FILE_NONE)) {
            cache_ = std::make_shared<Snapshot>(Snapshot{identity, std::move(keys)});
        }
    }
}
SettingsFile::~SettingsFile() = default;

void SettingsFile::registerDefaults(const std::map<std::string, std::string>& strings) {
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : strings) {
        registered_[key] = value;
    }
}

std::shared_ptr<const SettingsFile::Snapshot> SettingsFile::current() const {
    Identity now = identityOf(file_);
    {
        std::lock_guard lock(mutex_);
        if (cache_ && cache_->identity == now) {
            return cache_;
        }
    }
    // Loaded without the mutex: a damaged file is repaired under the writers' lock, and write()
    // takes that lock before the mutex.
    auto s = std::make_shared<Snapshot>();
    s->identity = now;
    s->keys = now.exists ? load(false, false).keys : KeyFile(g_key_file_new());
    std::lock_guard lock(mutex_);
    cache_ = s;
    return s;
}

SettingsFile::Loaded SettingsFile::load(bool keepComments, bool locked) const {
    auto flags = keepComments
                     ? GKeyFileFlags(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS)
                     : G_KEY_FILE_NONE;
    FileText file = readFile(file_);
    if (!file.bytes && file.error.empty()) {
        return {KeyFile(g_key_file_new()), true}; // no file yet
    }
    if (!file.bytes) {
        Log::warning(formatText(_("Ignoring settings file %s: %s"), {file_.string(), file.error}));
        std::string error;
        // A writer is about to replace it: what could not be read is kept, not overwritten.
        auto aside = locked ? keepAside(file_, nullptr, error) : std::nullopt;
        if (aside) {
            Log::warning(
                formatText(_("The unreadable settings file was kept as %s"), {aside->string()}));
        }
        return {KeyFile(g_key_file_new()), aside.has_value()};
    }
    if (KeyFile keys = parse(*file.bytes, flags)) {
        return {std::move(keys), true};
    }
    if (!locked) {
        // Again under the lock: another process may have repaired it in the meantime.
        FileLock lock(file_.parent_path());
        if (lock.held()) {
            return load(keepComments, true);
        }
        Log::warning(
            formatText(_("Cannot lock %s (%s): the damaged settings file %s is left as it is"),
                       {file_.parent_path().string(), lock.error(), file_.string()}));
    }
    Salvage salvaged = salvage(*file.bytes, file_, group);
    for (const auto& line : salvaged.dropped) {
        Log::warning(line);
    }
    bool settled = locked && replaceDamaged(*file.bytes, salvaged.text);
    KeyFile keys = parse(salvaged.text, flags);
    return {keys ? std::move(keys) : KeyFile(g_key_file_new()), settled};
}

bool SettingsFile::replaceDamaged(const std::string& damaged, const std::string& readable) const {
    std::string error;
    auto aside = keepAside(file_, &damaged, error);
    if (!aside) {
        Log::warning(formatText(
            _("The damaged settings file %s could not be kept aside (%s), so it is left as it is"),
            {file_.string(), error}));
        return false;
    }
    Error e;
    if (!g_file_set_contents_full(file_.c_str(), readable.data(), gssize(readable.size()),
                                  G_FILE_SET_CONTENTS_CONSISTENT, privateMode, glib::out(e))) {
        Log::error(
            formatText(_("Failed to save settings to %s: %s"), {file_.string(), e->message}));
        // The original is still in place: the next reader tries again, without a second copy.
        ::unlink(aside->c_str());
        return false;
    }
    Log::warning(formatText(_("The damaged settings file was kept as %s"), {aside->string()}));
    std::lock_guard guard(mutex_);
    news_ = news_ || damaged != seen_->content;
    seen_->content = readable;
    return true;
}

std::optional<std::string> SettingsFile::string(std::string_view key) const {
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

std::int64_t SettingsFile::integer(std::string_view key) const {
    auto snapshot = current();
    std::string k(key);
    Error error;
    gint64 value = g_key_file_get_int64(snapshot->keys.get(), group, k.c_str(), glib::out(error));
    if (error) {
        return 0;
    }
    return value;
}

bool SettingsFile::boolean(std::string_view key) const {
    auto snapshot = current();
    std::string k(key);
    Error error;
    gboolean value =
        g_key_file_get_boolean(snapshot->keys.get(), group, k.c_str(), glib::out(error));
    if (error) {
        return false;
    }
    return value != FALSE;
}

bool SettingsFile::setString(std::string_view key, std::string_view value) {
    return setStrings({{std::string(key), std::string(value)}});
}

bool SettingsFile::setStrings(const Changes& changes) {
    Changes raw;
    raw.reserve(changes.size());
    KeyFile scratch(g_key_file_new());
    for (const auto& [key, value] : changes) {
        if (!value) {
            raw.emplace_back(key, std::nullopt);
            continue;
        }
        // The key file's own escapes for newlines, tabs and leading blanks.
        g_key_file_set_string(scratch.get(), group, "k", value->c_str());
        GString_ text(g_key_file_get_value(scratch.get(), group, "k", nullptr));
        raw.emplace_back(key, std::string(text.get()));
    }
    return apply(raw);
}

bool SettingsFile::setInteger(std::string_view key, std::int64_t value) {
    return write(key, std::to_string(value));
}

bool SettingsFile::setBoolean(std::string_view key, bool value) {
    return write(key, value ? "true" : "false");
}

bool SettingsFile::remove(std::string_view key) {
    return write(key, std::nullopt);
}

bool SettingsFile::write(std::string_view key, std::optional<std::string> text) {
    return apply({{std::string(key), std::move(text)}});
}

namespace {

bool holdsAlready(GKeyFile* keys, const SettingsFile::Changes& changes) {
    return std::all_of(changes.begin(), changes.end(), [&](const auto& change) {
        GString_ old(
            g_key_file_get_value(keys, SettingsFile::group, change.first.c_str(), nullptr));
        return change.second ? (old && *change.second == old.get()) : !old;
    });
}

} // namespace

bool SettingsFile::apply(const Changes& changes) {
    // Writing what the file holds already changes nothing: the lock and the reread are spared
    // (the command line writes the selection back on every run).
    auto unchanged = [&](GKeyFile* keys) { return holdsAlready(keys, changes); };
    if (unchanged(current()->keys.get())) {
        return true;
    }
    auto failed = [&](const std::string& why) {
        reportFailure(why);
        return false;
    };
    if (auto why = paths::makePrivateFolder(file_.parent_path()); !why.empty()) {
        return failed(why);
    }
    // Writers of the file serialise on its folder, which leaves no lock file behind.
    FileLock lock(file_.parent_path());
    if (!lock.held()) {
        return failed(formatText(_("cannot lock its folder (%s)"), {lock.error()}));
    }

    Loaded loaded = load(true, true);
    if (!loaded.settled) {
        return failed(_("the file as it is could not be kept"));
    }
    KeyFile& keys = loaded.keys;
    if (unchanged(keys.get())) {
        return true; // spare the disk a rewrite
    }
    for (const auto& [key, text] : changes) {
        if (text) {
            g_key_file_set_value(keys.get(), group, key.c_str(), text->c_str());
        } else {
            g_key_file_remove_key(keys.get(), group, key.c_str(), nullptr);
        }
    }
    gsize length = 0;
    GString_ data(g_key_file_to_data(keys.get(), &length, nullptr));
    // The file as it stands under the writers' lock: if another process changed it since we last
    // looked, that change is still news after this write folds it in.
    auto before = Version::read(file_);
    Error error;
    bool saved =
        g_file_set_contents_full(file_.c_str(), data.get(), gssize(length),
                                 G_FILE_SET_CONTENTS_CONSISTENT, privateMode, glib::out(error));
    std::lock_guard guard(mutex_);
    cache_.reset();
    if (!saved) {
        reportFailure(error->message);
        return false;
    }
    {
        std::lock_guard failures(failureMutex_);
        lastFailure_.clear();
    }
    news_ = news_ || before != seen_->content;
    seen_->content = std::string(data.get(), length);
    return true;
}

void SettingsFile::reportFailure(const std::string& why) {
    // One line per cause: a command that writes twice into a full disk says it once.
    std::string line = formatText(_("Failed to save settings to %s: %s"), {file_.string(), why});
    std::lock_guard failures(failureMutex_);
    if (line != lastFailure_) {
        Log::error(line);
        lastFailure_ = std::move(line);
    }
}

bool SettingsFile::changedElsewhere() {
    auto now = Version::read(file_);
    std::lock_guard guard(mutex_);
    bool changed = news_ || now != seen_->content;
    news_ = false;
    seen_->content = std::move(now);
    return changed;
}

} // namespace almanor
