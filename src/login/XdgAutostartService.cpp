#include "login/XdgAutostartService.h"

#include "login/LaunchAtLogin.h"
#include "platform/GlibOwners.h"

#include <cerrno>
#include <cstring>
#include <glib.h>
#include <memory>
#include <system_error>
#include <unistd.h>

namespace almanor {

namespace {

using KeyFile = glib::Owner<GKeyFile, g_key_file_free>;

constexpr const char* group = G_KEY_FILE_DESKTOP_GROUP;

// An entry that exists, parses, and is neither hidden nor switched off.
bool enabledEntry(const std::filesystem::path& file) {
    KeyFile keys(g_key_file_new());
    if (!g_key_file_load_from_file(keys.get(), file.c_str(), G_KEY_FILE_NONE, nullptr)) {
        return false;
    }
    auto flag = [&](const char* key, bool absent) {
        glib::Error error;
        gboolean value = g_key_file_get_boolean(keys.get(), group, key, glib::out(error));
        if (error) {
            return absent;
        }
        return value != FALSE;
    };
    return !flag("Hidden", false) && flag("X-GNOME-Autostart-enabled", true);
}

void removeEntry(const std::filesystem::path& file) {
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
        throw LoginItemError(file.string() + ": " + std::strerror(errno));
    }
}

// Quotes one argument of an Exec line: reserved characters need double quotes, inside which
// ", `, $ and \ are escaped; % is doubled everywhere.
std::string quotedArgument(const std::string& arg) {
    bool plain = !arg.empty();
    for (char c : arg) {
        if (std::strchr(" \t\n\"'\\><~|&;$*?#()`=", c) != nullptr) {
            plain = false;
        }
    }
    std::string out;
    if (!plain) {
        out += '"';
    }
    for (char c : arg) {
        if (!plain && std::strchr("\"`$\\", c) != nullptr) {
            out += '\\';
        }
        out += c;
        if (c == '%') {
            out += '%';
        }
    }
    if (!plain) {
        out += '"';
    }
    return out;
}

} // namespace

XdgAutostartService::XdgAutostartService(const std::filesystem::path& configHome,
                                         std::filesystem::path program)
    : folder_(configHome / "autostart"), program_(std::move(program)) {}

std::filesystem::path XdgAutostartService::entryFile() const {
    return folder_ / (std::string(LaunchAtLogin::bundleIdentifier) + ".desktop");
}

std::filesystem::path XdgAutostartService::legacyEntryFile() const {
    return folder_ / (LaunchAtLogin::helperIdentifier() + ".desktop");
}

std::string XdgAutostartService::execLine() const {
    glib::Chars onPath(g_find_program_in_path("almanor"));
    std::error_code ec;
    if (onPath && std::filesystem::equivalent(onPath.get(), program_, ec)) {
        return "almanor";
    }
    return quotedArgument(std::filesystem::absolute(program_, ec).string());
}

LoginItemService::Status XdgAutostartService::status() const {
    return enabledEntry(entryFile()) ? Status::enabled : Status::notRegistered;
}

void XdgAutostartService::writeEntry(const std::filesystem::path& file,
                                     const std::string& name) const {
    std::error_code ec;
    std::filesystem::create_directories(folder_, ec);
    if (ec) {
        throw LoginItemError(folder_.string() + ": " + ec.message());
    }
    KeyFile keys(g_key_file_new());
    g_key_file_set_string(keys.get(), group, "Type", "Application");
    g_key_file_set_string(keys.get(), group, "Name", name.c_str());
    g_key_file_set_string(keys.get(), group, "Comment", "Days until your events, in the panel");
    g_key_file_set_string(keys.get(), group, "Exec", execLine().c_str());
    g_key_file_set_string(keys.get(), group, "Icon", LaunchAtLogin::bundleIdentifier);
    g_key_file_set_boolean(keys.get(), group, "Terminal", FALSE);
    g_key_file_set_boolean(keys.get(), group, "X-GNOME-Autostart-enabled", TRUE);
    glib::Error error;
    // Written to a temporary file and renamed, so a session never reads half an entry.
    if (!g_key_file_save_to_file(keys.get(), file.c_str(), glib::out(error))) {
        throw LoginItemError(error->message);
    }
}

void XdgAutostartService::registerItem() {
    writeEntry(entryFile(), "Almanor");
}

void XdgAutostartService::unregisterItem() {
    removeEntry(entryFile());
}

bool XdgAutostartService::legacyIsEnabled() const {
    return enabledEntry(legacyEntryFile());
}

void XdgAutostartService::legacySetEnabled(bool enabled) {
    try {
        if (enabled) {
            writeEntry(legacyEntryFile(), "Almanor Launch at Login Helper");
        } else {
            removeEntry(legacyEntryFile());
        }
    } catch (const LoginItemError&) {
        // The older helper is switched off on a best-effort basis only.
    }
}

void XdgAutostartService::unregisterLegacyHelper() {
    removeEntry(legacyEntryFile());
}

} // namespace almanor
