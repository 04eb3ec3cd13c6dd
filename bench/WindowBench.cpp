// Times the management window over the store of $XDG_DATA_HOME: building and showing it, then
// reloading its list after a change, as the change notification does. Needs a display.

#include "platform/Paths.h"
#include "platform/Signals.h"
#include "storage/LocalRepository.h"
#include "storage/Repository.h"
#include "ui/window/ManageEventsWindowGtk.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <gtkmm/main.h>
#include <gtkmm/window.h>
#include <memory>
#include <thread>
#include <vector>

using namespace almanor;
using Clock_ = std::chrono::steady_clock;

namespace {

class LoopThread final : public MainThread {
  public:
    bool isCurrent() const override { return true; }
    void post(Work work) override { work(); }
};

void settle() {
    while (Gtk::Main::events_pending()) {
        Gtk::Main::iteration(false);
    }
}

double ms(Clock_::time_point from) {
    return std::chrono::duration<double, std::milli>(Clock_::now() - from).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    Gtk::Main kit(argc, argv);
    Signals center;
    SystemClock clock;
    Repository repository(std::make_unique<LocalRepository>(
        paths::databaseDirectory(), paths::databaseFileName, center, clock));
    auto events = repository.fetchAll();
    LoopThread mainThread;

    auto start = Clock_::now();
    ManageEventsWindowGtk window(repository, center, mainThread, clock);
    window.center();
    window.present();
    settle();
    double shown = ms(start);

    std::vector<double> reloads;
    for (int i = 0; i < 5; ++i) {
        auto& e = *events[std::size_t(i) * 7 % events.size()];
        e.setName(e.name() + "!");
        auto t = Clock_::now();
        repository.update(e); // posts the change notification: the list reloads
        settle();
        reloads.push_back(ms(t));
    }
    std::printf("window over %zu events: shown in %.0f ms (goal <= 1000), reload after a change "
                "%.0f ms median "
                "(goal <= 200)\n",
                events.size(), shown, median(reloads));
    return 0;
}
