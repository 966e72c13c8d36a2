// wait and monitor: what happens at the agent, as it happens.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
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
#include "Tools/Listeners.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::microseconds withoutLog = 1s;
constexpr Patience leastPatience = 100ms;          // for the last question
constexpr std::chrono::microseconds withLog = 5s;  // a log may lose lines, and be before its time

// Returns when the log tells of a registration of the identifier, or at `end`.
void waitForRegistration(AgentLog& log, const Text& identifier, Clock::time_point end) {
  while (Clock::now() < end) {
    while (const auto event = log.next()) {
      const bool isRegistration = event->kind == LogEvent::Kind::registration;
      if (isRegistration && event->identifier == identifier) return;
    }
    const auto left = std::chrono::ceil<std::chrono::microseconds>(end - Clock::now());
    log.wait(std::max(left, 0us));
  }
}

std::string timeText(NSDate time) {
  const auto micros = std::llround(time.timeIntervalSince1970 * std::micro::den);
  const auto second = static_cast<std::time_t>(micros / std::micro::den);
  const auto fraction = static_cast<int>(micros % std::micro::den);
  std::tm parts{};
  isTerminal() ? ::localtime_r(&second, &parts) : ::gmtime_r(&second, &parts);
  char text[64];
  const std::size_t length =
      std::strftime(text, sizeof text, isTerminal() ? "%H:%M:%S" : "%Y-%m-%dT%H:%M:%S", &parts);
  const char* const format = isTerminal() ? ".%03d" : ".%06dZ";
  std::snprintf(text + length, sizeof text - length, format,
                isTerminal() ? fraction / 1000 : fraction);
  return text;
}

constexpr std::size_t longestWord = 8;

void tell(NSDate time, const char* what, const char* colour, const std::string& whom) {
  print({{timeText(time), faint}, {padded(what, longestWord), colour}, {whom}});
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
    const std::chrono::duration<double> now = std::chrono::floor<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    for (const auto& [key, applications] : *change) {
      const bool isLaunch = key == NSKeyValueChangeNewKey;
      for (const Value& each : applications.asArray() ? *applications.asArray() : Array{}) {
        const auto application = each.asObject<NSRunningApplication>();
        if (!application) continue;
        const auto& identifier = application->bundleIdentifier();
        tell({now.count()}, isLaunch ? "launch" : "end", isLaunch ? green : red,
             identifier ? shown(*identifier) : "-");
      }
    }
  }
};

}  // namespace

Status wait(const Request& request) {
  const auto log = AgentLog::find(request.log);
  if (log) log->skipToEnd();
  requireRuntimeDirectory();
  const Patience patience = Request{}.patience();  // for one answer
  Registry registry(patience);
  const auto last = request.seconds ? Clock::now() + request.patience() : Clock::time_point::max();
  for (bool isAnswered = false;;) {
    const auto endpoint = registry.tryToRetrieve(
        request.identifier,
        std::clamp(std::chrono::ceil<Patience>(last - Clock::now()), leastPatience, patience));
    if (endpoint && *endpoint && isServed(**endpoint)) return Status::done;
    isAnswered = isAnswered || endpoint;
    if (last <= Clock::now()) {
      fail(Status::notInTime, shown(request.identifier) + " was not served in time" +
                                  (isAnswered ? "." : ": " + registry.whyNoAnswer().sentence));
    }
    const auto end = std::min(last, Clock::now() + (log ? withLog : withoutLog));
    if (log) {
      waitForRegistration(*log, request.identifier, end);
    } else {
      std::this_thread::sleep_until(end);
    }
  }
}

Status monitor(const Request& request) {
  const auto log = AgentLog::require(request.log);
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
