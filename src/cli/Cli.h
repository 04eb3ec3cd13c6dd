#pragma once

#include <functional>

namespace almanor {
class Clock;
class Repository;
class UserDefaults;
} // namespace almanor

namespace almanor::cli {

// Exit statuses of the command line.
inline constexpr int exitSuccess = 0;
inline constexpr int exitNoSuchEvent = 1;
inline constexpr int exitUsage = 2;
inline constexpr int exitStoreFailed = 3;
inline constexpr int exitModuleMissing = 4; // the CalDAV adapter's module could not be loaded

// The check that every command reading the store makes first: false, after one line on standard
// error naming the file and what to do, when the store cannot be read. Writes nothing.
bool storeIsReadable(Repository& repository);

// What the commands use, built once by main and handed down. The store is opened by the first
// command that reads it, so that the others (help, cloud login) never create its file.
struct Services {
    UserDefaults& defaults;
    const Clock& clock;
    std::function<Repository&()> repository;
};

// Runs one command (`almanor events list`, `almanor status`, ...) and returns its exit status.
int run(int argc, char** argv, const Services& services);

} // namespace almanor::cli
