#include "cli/Store.h"

#include "cli/Cli.h"
#include "cli/Command.h"
#include "cli/Services.h"
#include "platform/Translation.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "storage/StoreError.h"

#include <cstdio>
#include <filesystem>

namespace almanor::cli {

Store::Store(Services& services)
    : settings_(services.defaults()), repository_(services.repository()) {
    settings_.registerDefaults();
    if (!storeIsReadable(repository_)) {
        throw Failed{};
    }
    MigrationManager::migrateIfNeeded(repository_, services.defaults());
}

std::vector<EventPtr> Store::events() {
    try {
        return repository_.local().fetchAll();
    } catch (const StoreError& e) {
        // A damaged page that opening the file did not reach.
        std::fprintf(stderr, "almanor: %s\n", repository_.local().unusableLine(e).c_str());
        throw Failed{};
    }
}

IdPrefix IdPrefix::parse(std::string_view typed, std::string_view expected) {
    constexpr std::string_view example = "3F2504E0-4F89-41D3-9A0C-0305E82C3301";
    bool fits = typed.size() <= example.size();
    std::string text;
    for (std::size_t i = 0; fits && i < typed.size(); ++i) {
        // ASCII only, whatever the locale's character classes say.
        char c = typed[i] >= 'a' && typed[i] <= 'f' ? char(typed[i] - 'a' + 'A') : typed[i];
        fits = example[i] == '-' ? c == '-' : (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
        text += c;
    }
    if (!fits) {
        throw UsageError{
            formatText(_("'%s' is not %s (a UUID such as %s, or its first characters)"),
                       {typed, expected.empty() ? _("an event id") : expected, example})};
    }
    if (text.size() < shortest) {
        throw UsageError{formatText(P_("'%s' is too short for an event id: give at least %zu of "
                                       "its characters",
                                       "'%s' is too short for an event id: give at least %zu of "
                                       "its characters",
                                       shortest),
                                    {typed, std::to_string(shortest)})};
    }
    return IdPrefix{std::move(text)};
}

EventPtr Store::event(const IdPrefix& id) {
    std::vector<EventPtr> found;
    try {
        found = repository_.local().fetchByIdPrefix(id.text);
    } catch (const StoreError& e) {
        std::fprintf(stderr, "almanor: %s\n", repository_.local().unusableLine(e).c_str());
        throw Failed{};
    }
    if (found.empty()) {
        throw NotFound{id.text};
    }
    if (found.size() > 1) {
        throw Ambiguous{id.text, std::move(found)};
    }
    return found.front();
}

std::vector<LocalRepository::Held> Store::insertNew(const std::vector<EventPtr>& events) {
    try {
        return repository_.local().insertNew(events);
    } catch (const StoreError& e) {
        // (Rolled back: none of them was written.)
        std::fprintf(stderr, "%s\n",
                     formatText(_("Failed to insert records: %s"), {e.what()}).c_str());
        throw Failed{};
    }
}

} // namespace almanor::cli
