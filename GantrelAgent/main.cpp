// The agent's process: it serves its bundle identifier's name until it is ended from outside.

#include <memory>

#include "GantrelAgent/Agent.h"
#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Foundation/NSBundle.h"
#include "Platform/Runtime/StandardStreams.h"
#include "Platform/Runtime/Stop.h"

using namespace Platform;
using Gantrel_Sync_Helper::Agent;

namespace {

// Alive until the process ends, and never destroyed: connections use it until then.
std::shared_ptr<Agent>* theAgent = nullptr;

}  // namespace

int main(int, char**) {
  openStandardStreams();
  WorkerPool::shared().returnMemoryAfterBursts();
  const std::optional<Text> serviceName = NSBundle::mainBundle().bundleIdentifier();
  if (!serviceName) stopProcess(ExitStatus::config);
  theAgent = new std::shared_ptr<Agent>(Agent::initWithServiceName(*serviceName));
  (*theAgent)->resume();
  return 0;
}
