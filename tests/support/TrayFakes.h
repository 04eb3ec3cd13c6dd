#pragma once
// Recording stand-ins for what the tray draws, and a main thread that a test drains by hand.

#include "platform/MainThread.h"
#include "shell/TrayApplication.h"

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace almanor::test {

class RecordingMenuPresenter final : public MenuPresenter {
  public:
    void buildMenu(const std::vector<MenuItem>& items) override { menu = items; }
    void rebuildEventsMenu(const std::vector<MenuItem>& items) override {
        rows = items;
        ++rebuilds;
    }
    void setEventsMenuState(std::size_t index, bool on) override { rows.at(index).state = on; }
    void setMenuState(std::size_t index, bool on) override { menu.at(index).state = on; }

    std::vector<std::string> titles(bool marked = false) const {
        std::vector<std::string> t;
        for (const auto& r : rows)
            if (r.state || !marked)
                t.push_back(r.title);
        return t;
    }
    std::vector<MenuItem> menu;
    std::vector<MenuItem> rows;
    int rebuilds = 0;
};

class RecordingStatusBar final : public StatusBar, public StatusItem {
  public:
    StatusItem& createStatusItem() override { return *this; }
    void setTitle(const std::string& title) override {
        titles.push_back(title);
        onTitle();
    }
    std::vector<std::string> titles;
    std::function<void()> onTitle = [] {};
};

class ManualScheduler final : public Scheduler {
  public:
    void scheduleRepeating(double seconds, double slack, std::function<void()> work) override {
        interval = seconds;
        tolerance = slack;
        action = std::move(work);
    }
    void fire() { action(); }
    double interval = 0;
    double tolerance = 0;
    std::function<void()> action;
};

// The main thread is the one that made it; posts wait in a queue until drain().
class QueueMainThread final : public MainThread {
  public:
    bool isCurrent() const override { return std::this_thread::get_id() == owner_; }
    void post(Work work) override {
        std::lock_guard lock(mutex_);
        queue_.push_back(std::move(work));
    }
    std::size_t drain() {
        std::size_t n = 0;
        for (std::unique_lock lock(mutex_); !queue_.empty(); ++n) {
            Work work = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock(); // the work may post more
            work();
            lock.lock();
        }
        return n;
    }

  private:
    std::thread::id owner_ = std::this_thread::get_id();
    std::mutex mutex_;
    std::deque<Work> queue_;
};

class FakeWindow final : public ManageEventsWindow {
  public:
    bool isVisible() const override { return visible; }
    void center() override { ++centred; }
    void present() override {
        visible = true;
        ++fronted;
    }
    void showEvent(const Uuid&) override {}
    bool visible = false;
    int centred = 0;
    int fronted = 0;
};

} // namespace almanor::test
