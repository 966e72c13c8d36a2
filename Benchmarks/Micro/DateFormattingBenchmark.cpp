// What a text for a date costs beside the bare library: building a formatter for a known locale and
// pattern, and running it once. Ours finds out the locale, the clock, the calendar and the time
// zone besides, at every call.
//
// After the table comes each text's ratio to the bare formatter of the same pattern: the median of
// pairs measured by turns, so that whatever else the machine does meets both.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>
#include <unicode/smpdtfmt.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Shared/DateFormatting.h"

using namespace Gantrel_Sync_Helper;
using Platform::NSDate;
using Platform::Text;

namespace {

constexpr NSDate date{1457186820};  // 2016-03-05 14:07:00 UTC

using Ours = Text (*)(const NSDate&);

struct Form {
  const char* name;
  Ours ours;
  const char* pattern;
};

constexpr Form forms[] = {
    {"compactDayNameAndDateString", compactDayNameAndDateString, "EEEE  d MMMM, YYYY"},
    {"compactDayNameDateAndTimeForMenuIconApp", compactDayNameDateAndTimeForMenuIconApp,
     "EEE dd MMM, h:mm a"},
    {"hhmm", hhmm, "h:mm a"},
    {"dMMMhhmm", dMMMhhmm, "d MMM, h:mm a"},
};

void runOurs(const Form& form) {
  benchmark::DoNotOptimize(form.ours(date));
}

void runBare(const Form& form) {
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat formatter(icu::UnicodeString::fromUTF8(form.pattern), icu::Locale::getUS(),
                                  status);
  icu::UnicodeString text;
  formatter.format(date.timeIntervalSince1970 * 1000, text);
  std::string utf8;
  benchmark::DoNotOptimize(text.toUTF8String(utf8));
}

using Run = void (*)(const Form&);

void add(const Form& form, const char* who, Run run) {
  benchmark::RegisterBenchmark((std::string(form.name) + who).c_str(),
                               [run, &form](benchmark::State& state) {
                                 for (auto _ : state) run(form);
                               });
}

// Of the processor, which others may be using as well.
double secondsFor(Run run, const Form& form) {
  const auto now = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  };
  const double start = now();
  for (int i = 0; i < 200; ++i) run(form);
  return now() - start;
}

double medianRatio(const Form& form) {
  std::vector<double> ratios;
  for (int i = 0; i < 51; ++i)
    ratios.push_back(secondsFor(runOurs, form) / secondsFor(runBare, form));
  std::nth_element(ratios.begin(), ratios.begin() + 25, ratios.end());
  return ratios[25];
}

}  // namespace

int main(int argc, char** argv) {
  ::setenv("LC_ALL", "en_US.UTF-8", 1);
  benchmark::Initialize(&argc, argv);
  for (const Form& form : forms) {
    add(form, "/ours", runOurs);
    add(form, "/bare", runBare);
  }
  benchmark::RunSpecifiedBenchmarks();
  for (const Form& form : forms)
    std::printf("%-42s %.2f times bare\n", form.name, medianRatio(form));
}
