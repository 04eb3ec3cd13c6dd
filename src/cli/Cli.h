#pragma once

#include <functional>

namespace almanor {
class Clock;
class Repository;
class SettingsFile;
} // namespace almanor

namespace almanor::cli {

class Services;

// Exit statuses of the command line.
inline constexpr int exitSuccess = 0;
inline constexpr int exitNoSuchEvent = 1;
inline constexpr int exitUsage = 2;
inline constexpr int exitStoreFailed = 3;
inline constexpr int exitModuleMissing = 4; // the CalDAV adapter's module could not be loaded

// The check that every command reading the store makes first: false, after one line on standard
// error naming the file and what to do, when the store cannot be read. Writes nothing.
bool storeIsReadable(Repository& repository);

// Runs one command (`almanor events list`, `almanor status`, ...) over the services the program
// built, and returns its exit status.
int run(int argc, char** argv, Services& services);

} // namespace almanor::cli
