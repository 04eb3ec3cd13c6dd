// almanor events export|import: the events as a calendar file, written and read by the CalDAV
// adapter's own iCalendar writer and reader, so that a file says what the server is told.

#include "cli/Cli.h"
#include "cli/Command.h"
#include "cli/Services.h"
#include "cli/Store.h"
#include "cli/TextEscapes.h"
#include "cloud/CloudModule.h"
#include "cloud/RecordMapping.h"
#include "platform/Clock.h"
#include "platform/Translation.h"
#include "platform/Uuid.h"
#include "platform/WriteAll.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace almanor::cli {

namespace {

// Larger than any calendar of dates a person keeps; bounds what an import reads.
constexpr std::size_t largestCalendarFile = std::size_t{16} << 20;

// The years a date can be given in (DateInput).
constexpr int firstYear = 1583;
constexpr int lastYear = 9999;

std::string systemError(int error) {
    return std::strerror(error);
}

// The file, or standard input for "-", whole; UsageError when it cannot be read or is larger
// than the bound.
std::string readCalendarText(const std::string& file) {
    int fd = file == "-" ? STDIN_FILENO : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw UsageError{formatText(_("cannot read %s: %s"), {file, systemError(errno)})};
    }
    std::string text;
    std::string problem;
    char buffer[65536];
    while (problem.empty()) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) {
            break;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            problem = formatText(_("cannot read %s: %s"), {file, systemError(errno)});
        } else if (text.size() + std::size_t(n) > largestCalendarFile) {
            problem = formatText(_("%s is larger than 16 MiB: no calendar of dates is that large"),
                                 {file});
        } else {
            text.append(buffer, std::size_t(n));
        }
    }
    if (fd != STDIN_FILENO) {
        ::close(fd);
    }
    if (!problem.empty()) {
        throw UsageError{problem};
    }
    return text;
}

// Writes `text` to `file` whole or not at all: into a new file beside it, then renamed over it,
// so that a reader or a crash never sees half a calendar. A new file gets the mode the umask
// gives any file a program makes (as `>` would); a file written over keeps its own mode. Empty
// when done, else why not.
std::string writeAtomically(std::filesystem::path file, std::string_view text) {
    std::error_code ignored;
    if (std::filesystem::is_symlink(file, ignored)) {
        file = std::filesystem::weakly_canonical(file, ignored); // the file the link names
    }
    struct stat existing {};
    bool replacing = ::stat(file.c_str(), &existing) == 0;
    std::filesystem::path temporary = file;
    temporary += ".almanor-" + Uuid::random().uuidString().substr(0, 8);
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        return systemError(errno);
    }
    bool written = writeAll(fd, text) &&
                   (!replacing || ::fchmod(fd, existing.st_mode & 07777) == 0) && ::fsync(fd) == 0;
    int error = errno;
    written = ::close(fd) == 0 && written;
    if (written && ::rename(temporary.c_str(), file.c_str()) == 0) {
        // The rename itself reaches the disk with its folder.
        std::filesystem::path folder = file.parent_path().empty() ? "." : file.parent_path();
        if (int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
            ::fsync(dir);
            ::close(dir);
        }
        return {};
    }
    error = written ? errno : error;
    ::unlink(temporary.c_str());
    return systemError(error);
}

int exportEvents(Services& services, const std::string& file) {
    const CloudModule& module = services.cloudModule().module();
    Store store(services);
    std::vector<CloudRecord> records;
    for (const auto& event : store.events()) {
        // Named by the event's id, so that a calendar app given the file again updates its
        // copies rather than adding new ones.
        records.push_back(recordFromEvent(CloudEvent{
            RecordId{event->id().uuidString(), std::string(appZoneName)}, event, std::nullopt}));
    }
    std::string text = module.writeCalendar(records, services.clock().now());
    if (file.empty() || file == "-") {
        if (!writeAll(STDOUT_FILENO, text)) {
            std::fprintf(
                stderr, "almanor: %s\n",
                formatText(_("cannot write standard output: %s"), {systemError(errno)}).c_str());
            return exitStoreFailed;
        }
        return exitSuccess;
    }
    if (auto why = writeAtomically(file, text); !why.empty()) {
        std::fprintf(stderr, "almanor: %s\n",
                     formatText(_("cannot write %s: %s"), {file, why}).c_str());
        return exitStoreFailed;
    }
    std::fprintf(
        stderr, "%s\n",
        formatText(P_("Exported %zu event to %s", "Exported %zu events to %s", records.size()),
                   {std::to_string(records.size()), file})
            .c_str());
    return exitSuccess;
}

bool withinYears(Instant date) {
    int year = int(std::chrono::year_month_day(std::chrono::floor<std::chrono::days>(date)).year());
    return year >= firstYear && year <= lastYear;
}

void skippedLine(const std::string& name, const std::string& reason) {
    std::string shown;
    appendListingText(shown, name);
    std::string line = "almanor: " + formatText(_("skipped \"%s\": %s"), {shown, reason}) + "\n";
    std::fputs(line.c_str(), stderr);
}

int importEvents(Services& services, const std::string& file) {
    // Everything is read and checked before the store is opened: a bad file writes nothing.
    std::string text = readCalendarText(file);
    const CloudModule& module = services.cloudModule().module();
    CalendarFile calendar;
    try {
        calendar =
            module.readCalendarFile(text, std::string(eventRecordType), std::string(appZoneName));
    } catch (const CloudError& e) {
        throw UsageError{(file == "-" ? std::string(_("standard input")) : file) + ": " + e.what()};
    }
    std::vector<EventPtr> events;
    for (const auto& record : calendar.records) {
        // The same event the cloud makes of the record: a VEVENT of ours keeps its event's id, a
        // calendar app's gets one derived from its UID, the same on every import.
        EventPtr event = eventFromRecord(record, services.clock()).event;
        if (withinYears(event->date())) {
            events.push_back(std::move(event));
        } else {
            calendar.skipped.push_back(
                {event->name(), _("its date is outside the years 1583 to 9999")});
        }
    }

    Store store(services);
    auto held = store.insertNew(events);
    std::size_t added = 0;
    std::size_t present = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (held[i] == LocalRepository::Held::nothing) {
            ++added;
            std::printf("%s\n", events[i]->id().uuidString().c_str());
        } else if (held[i] == LocalRepository::Held::live) {
            ++present; // left as it is here: an edit made since is kept
        } else {
            calendar.skipped.push_back(
                {events[i]->name(), _("it was deleted here; add it again with events add")});
        }
    }
    for (const auto& skipped : calendar.skipped) {
        skippedLine(skipped.name, skipped.reason);
    }
    std::fprintf(stderr, "%s\n",
                 formatText(P_("Imported %zu event; %zu already here, %zu skipped",
                               "Imported %zu events; %zu already here, %zu skipped", added),
                            {std::to_string(added), std::to_string(present),
                             std::to_string(calendar.skipped.size())})
                     .c_str());
    return exitSuccess;
}

} // namespace

void declareCalendarFileCommands(CLI::App& events, Action& chosen) {
    auto file = std::make_shared<std::string>();
    auto* out = events.add_subcommand(
        "export", _("Write every event as an iCalendar file that calendar applications import"));
    out->add_option("FILE", *file, _("The file to write; standard output when none is named"));
    out->footer(_("Each event is an all-day VEVENT on its date, its recurrence an RRULE, its\n"
                  "alias, recurrence and counting in X-CD- properties, which events import\n"
                  "reads back exactly. A file named is replaced whole (written aside, then\n"
                  "renamed) and keeps its mode; a new one gets the mode the umask gives."));
    out->callback(
        [&chosen, file] { chosen = [file](Services& s) { return exportEvents(s, *file); }; });

    auto in = std::make_shared<std::string>();
    auto* import = events.add_subcommand(
        "import", _("Add the events of an iCalendar file (birthdays from a contacts application, "
                    "say) that are not here yet"));
    import->add_option("FILE", *in, _("The file to read, at most 16 MiB; - for standard input"))
        ->required();
    import->footer(
        _("Each VEVENT with a date (all-day, or a time in its zone) that does not repeat or\n"
          "repeats every week, month or year becomes an event; any other is skipped, named on\n"
          "standard error with why. An event is known by its UID: importing a file again adds\n"
          "only what is new, leaves the events here as they are (edits included) and does not\n"
          "bring back events deleted here. The new events' ids go to standard output; a\n"
          "calendar server gets them at the next sync. A file that is not iCalendar, is cut\n"
          "short or is too large is exit status 2, and nothing is imported."));
    import->callback(
        [&chosen, in] { chosen = [in](Services& s) { return importEvents(s, *in);
};
} // namespace almanor::cli
);
}

} // namespace almanor::cli
