#pragma once
// What the command groups share: how a command is declared on the parser and what it may throw.

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace almanor::cli {

class Services;

// The command the parser chose, run once parsing has succeeded; returns the exit status.
using Action = std::function<int(Services&)>;

// A problem with what the user typed: one line on standard error, exit status 2.
struct UsageError {
    std::string message;
};

// Each group declares its commands on the parser (in the order of the help text); the command
// given sets `chosen`.
void declareEventCommands(CLI::App& app, Action& chosen);           // events list|add|edit|delete
void declareCalendarFileCommands(CLI::App& events, Action& chosen); // events export|import
void declareDisplayCommands(CLI::App& app, Action& chosen);         // select, status
void declareCloudCommands(CLI::App& app, Action& chosen); // cloud login|logout|status, sync

// `almanor status [--json]`, which status bars run every few seconds: reached without the parser.
int showStatus(Services& services, bool json);

} // namespace almanor::cli
