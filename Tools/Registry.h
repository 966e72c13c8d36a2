// Registry: the agent, as the commands ask it: with a limit to the time that it may take.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Shared/EndPointHandler.h"
#include "Tools/Terminal.h"

namespace Gantrel_Sync_Helper {

// On one thread. What cannot be had of the agent ends the process, but where it says otherwise.
class Registry {
 public:
  explicit Registry(Patience patience);

  // Null when nothing is registered.
  Platform::EndpointRef retrieve(const Platform::Text& identifier);
  // The same, with a sentence and the end of the process for null.
  Platform::EndpointRef require(const Platform::Text& identifier);
  // The same as `retrieve`; none when there is no agent, or it does not answer within the patience,
  // the registry's where there is no other.
  std::optional<Platform::EndpointRef> tryToRetrieve(const Platform::Text& identifier,
                                                     std::optional<Patience> patience = {});

  // Returns when the endpoint can be found. From then on it is registered again whenever the agent
  // was away, as long as this object lives.
  void registerEndpoint(const Platform::EndpointRef& endpoint, const Platform::Text& identifier);
  // Removes the entry if it is still for the endpoint, and returns when it is gone. Somebody else's
  // that takes its place between the look and the removal is removed in its stead. Where the agent
  // does not answer, this is said, and the status is for it.
  Status remove(const Platform::EndpointRef& endpoint, const Platform::Text& identifier);

  struct Reason {
    Status status;
    std::string sentence;
  };
  Reason whyNoAnswer() const;  // to the last question

 private:
  [[noreturn]] void failWithoutAnswer() const;

  const Patience patience_;
  const std::shared_ptr<EndPointHandler> agent_;
  Platform::NSXPCConnectionError error_{};  // of the last question without an answer
};

// A sentence and the end of the process where no agent could be reached.
void requireRuntimeDirectory();

// The sentence about an entry whose listener is gone, and the end of the process.
[[noreturn]] void failAsGone(const Platform::Text& identifier);

}  // namespace Gantrel_Sync_Helper
