// Cost of one event's count (occurrence, day count, status text) for every schedule and count
// method, on the fast calendar and on ICU's own; and of choosing the displayed event among
// 10,000 events.
#include "dates/IcuCalendar.h"
#include "model/CivilCalendar.h"
#include "model/EventNames.h"
#include "model/Utility.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "shell/DisplayedEventSelection.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <random>

using namespace almanor;
using namespace std::chrono;

namespace {

constexpr const char* zone = "Europe/Prague";

Instant someInstant(std::mt19937_64& rng) {
    // Dates from 1990 to 2040, so that recurring events span decades of differences.
    std::uniform_int_distribution<std::int64_t> ms(631152000000LL, 2208988800000LL);
    return Instant(milliseconds(ms(rng)));
}

template <typename Calendar> void countOne(benchmark::State& state) {
    auto calendar = Calendar::forZone(zone);
    auto schedule = static_cast<Schedule>(state.range(0));
    auto method = static_cast<CountMethod>(state.range(1));
    std::mt19937_64 rng(7);
    std::vector<Instant> dates(512);
    for (auto& d : dates) {
        d = someInstant(rng);
    }
    Instant today = Utility::startOfToday(*calendar, Instant(milliseconds(1795000000000LL)));
    std::size_t i = 0;
    for (auto _ : state) {
        Instant date = dates[i++ % dates.size()];
        Instant target = Utility::occurrenceDate(*calendar, today, date, schedule);
        benchmark::DoNotOptimize(
            Utility::statusText("Event", Utility::dayCount(*calendar, today, target, method)));
    }
    state.SetLabel(std::string(spelling(schedule)) + "/" + std::string(spelling(method)));
}

void allCombinations(benchmark::internal::Benchmark* b) {
    for (int s = 0; s < 4; ++s) {
        for (int m = 0; m < 4; ++m) {
            b->Args({s, m});
        }
    }
}

BENCHMARK(countOne<CivilCalendar>)->Apply(allCombinations);
BENCHMARK(countOne<IcuCalendar>)->Apply(allCombinations)->Iterations(2000);

void selection(benchmark::State& state) {
    std::mt19937_64 rng(11);
    std::vector<EventPtr> events;
    for (int i = 0; i < 10000; ++i) {
        events.push_back(makeEvent(Uuid::random(), someInstant(rng), "Event " + std::to_string(i),
                                   std::nullopt, static_cast<Schedule>(i % 4),
                                   static_cast<CountMethod>((i / 4) % 4)));
    }
    auto folder =
        std::filesystem::temp_directory_path() / ("almanor-bench-" + std::to_string(::getpid()));
    SettingsFile defaults(folder / "settings.ini");
    Settings settings(defaults);
    settings.registerDefaults();
    FixedClock clock(Instant(milliseconds(1795000000000LL)));
    DisplayedEventSelection s([&events] { return events; }, settings, clock,
                              [] { return DayCalendar::forZone(zone); });
    RecordedStatusItem item;
    s.setStatusItem(&item);
    Uuid mode = state.range(0) == 1 ? DisplayedEventSelection::nextEventId
                                    : DisplayedEventSelection::cycleUpcomingEventId;
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.resolveDisplayedEvent(mode));
    }
    state.SetLabel(state.range(0) == 1 ? "next upcoming of 10,000" : "hourly rotation over 10,000");
    std::filesystem::remove_all(folder);
}
BENCHMARK(selection)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
