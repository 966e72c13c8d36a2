// wait and monitor: what happens at the agent, as it happens.

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>

#include "Platform/Runtime/KeyValueObserving.h"
#include "Platform/Runtime/StandardStreams.h"
#include "Platform/Runtime/Value.h"
#include "Platform/Workspace/RunningApplicationsObservation.h"
#include "Tools/AgentLog.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Time = std::chrono::sys_time<std::chrono::microseconds>;

namespace {

constexpr std::chrono::microseconds withoutLog = 1s;
constexpr std::chrono::microseconds withLog = 30s;       // a log may lose lines
constexpr std::chrono::microseconds afterTheLine = 5ms;  // which comes before the entry

// Returns when the log tells of a registration of the identifier, which it then says, or at `end`.
bool waitForRegistration(AgentLog& log, const Text& identifier, Clock::time_point end) {
  for (;;) {
    while (const auto event = log.next()) {
      if (event->kind == LogEvent::Kind::registration && event->identifier == identifier) {
        return true;
      }
    }
    const auto left = std::chrono::ceil<std::chrono::microseconds>(end - Clock::now());
    if (left <= 0us) return false;
    log.wait(left);
  }
}

std::string timeText(Time time) {
  const std::chrono::duration<double> sinceEpoch = time.time_since_epoch();
  if (!isTerminal()) return textFromDate({sinceEpoch.count()});
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::time_t calendarTime = std::chrono::system_clock::to_time_t(seconds);
  std::tm local{};
  ::localtime_r(&calendarTime, &local);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return std::string(text, length) + "." + std::to_string(1000 + (time - seconds) / 1ms).substr(1);
}

void tell(Time time, const std::string& what, const char* colour, const std::string& whom) {
  print({{timeText(time), faint}, {what, colour, 8}, {whom}});
}

void tell(const LogEvent& event) {
  switch (event.kind) {
    case LogEvent::Kind::start:
      return tell(event.time, "start", green, "the agent");
    case LogEvent::Kind::registration:
      return tell(event.time, "register", green, shown(event.identifier));
    case LogEvent::Kind::retrieval:
      return tell(event.time, "retrieve", "", shown(event.identifier));
    case LogEvent::Kind::removal:
      return tell(event.time, "remove", red, shown(event.identifier));
  }
}

// Called on the observation's queue.
class LaunchTeller final : public NSObject {
 public:
  void observeValueForKeyPath(const std::optional<Text>&, const std::shared_ptr<NSObject>&,
                              const std::map<Text, Value>* change, void*) override {
    if (!change) return;
    tellAll(*change, NSKeyValueChangeNewKey, "launch", green);
    tellAll(*change, NSKeyValueChangeOldKey, "end", red);
  }

 private:
  static void tellAll(const std::map<Text, Value>& change, const Text& key, const char* what,
                      const char* colour) {
    const auto entry = change.find(key);
    const Array* const applications = entry == change.end() ? nullptr : entry->second.asArray();
    if (!applications) return;
    const auto now =
        std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
    for (const Value& value : *applications) {
      const auto application = value.asObject<NSRunningApplication>();
      if (!application) continue;
      const auto& identifier = application->bundleIdentifier();
      tell(now, what, colour, identifier ? shown(*identifier) : "-");
    }
  }
};

}  // namespace

Status wait(const Options& options, const Text& identifier) {
  std::string problem;
  const auto log = AgentLog::open(options.log, problem);
  if (!log && options.log) fail(Status::noLog, problem);
  if (log) log->skipToEnd();
  Registry registry(Options{}.patience());
  const auto start = Clock::now();
  auto pause = log ? withLog : withoutLog;
  for (;;) {
    const auto endpoint = registry.tryToRetrieve(identifier);
    if (endpoint && *endpoint && look(**endpoint).isBound) return Status::done;
    auto end = Clock::now() + pause;
    if (options.seconds) {
      const auto last = start + options.patience();
      if (last <= Clock::now()) {
        fail(Status::notInTime, shown(identifier) + " was not served in time.");
      }
      end = std::min(end, last);
    }
    if (!log) {
      std::this_thread::sleep_until(end);
    } else if (waitForRegistration(*log, identifier, end)) {
      pause = afterTheLine;
    } else {
      pause = std::min(2 * pause, withLog);
    }
  }
}

Status monitor(const Options& options) {
  std::string problem;
  const auto log = AgentLog::open(options.log, problem);
  if (!log) fail(Status::noLog, problem);
  log->skipToEnd();
  endWhenNobodyReads();
  const auto teller = std::make_shared<LaunchTeller>();
  RunningApplicationsObservation observation(teller, nullptr);
  if (!observation) complain("launches and ends of applications cannot be observed here.");
  if (observation) observation.resume();
  for (;;) {
    while (const auto event = log->next()) tell(*event);
    log->wait(withLog);
  }
}

}  // namespace Gantrel_Sync_Helper
