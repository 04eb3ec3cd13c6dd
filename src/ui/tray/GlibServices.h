#pragma once

#include "platform/GlibOwners.h"
#include "platform/MainThread.h"
#include "shell/TrayApplication.h"

#include <filesystem>
#include <functional>
#include <thread>

// NOLINTBEGIN(bugprone-reserved-identifier): GLib's own struct names, declared as its headers do.
typedef struct _GFileMonitor GFileMonitor;
typedef struct _GDBusConnection GDBusConnection;
// NOLINTEND(bugprone-reserved-identifier)

namespace almanor {

// The main thread is the one running GLib's default main context.
class GlibMainThread final : public MainThread {
  public:
    GlibMainThread();
    bool isCurrent() const override;
    void post(Work work) override;

  private:
    std::thread::id owner_;
};

// Seconds-granularity timeouts, so the main loop can coalesce the tray's wake-ups with others.
class GlibScheduler final : public Scheduler {
  public:
    ~GlibScheduler() override;
    void scheduleRepeating(double intervalSeconds, double toleranceSeconds,
                           std::function<void()> action) override;

  private:
    unsigned source_ = 0;
    std::function<void()> action_;
};

// Calls `changed` when the file is written, created, replaced or removed (inotify, no polling).
class FileWatch {
  public:
    FileWatch(const std::filesystem::path& file, std::function<void()> changed);
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

  private:
    glib::Object<GFileMonitor> monitor_;
    std::function<void()> changed_;
};

// Calls `woke` when the system resumes from suspend (logind's PrepareForSleep(false) on the system
// bus); does nothing where there is no system bus.
class WakeWatch {
  public:
    explicit WakeWatch(std::function<void()> woke);
    ~WakeWatch();
    WakeWatch(const WakeWatch&) = delete;
    WakeWatch& operator=(const WakeWatch&) = delete;

  private:
    glib::Object<GDBusConnection> bus_;
    unsigned subscription_ = 0;
    std::function<void()> woke_;
};

} // namespace almanor
