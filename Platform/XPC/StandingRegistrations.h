// StandingRegistrations: what a process offers through a registry service, offered again to each
// next process of that service.
//
// The service's registry ends with its process. Once a connection to it is lost, or nobody is
// found there, the service is asked who it is, with the first of the entries: soon after, in case a
// service manager holds its place, and whenever its name appears. Answers come with the process
// that gave them (NSXPCConnection::answeringProcess). What that very process has answered for is
// left alone: it may have been taken away since. Of the rest each entry is asked for, and
// registered where the answer is nil, at once, on the thread that takes the answer.
//
// Somebody else may register an identifier between the two, which takes one round trip. So the
// registration has another question right before it, and what that finds is put back.
//
// While the service is there nothing is watched and nothing runs.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Runtime/Text.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/ServiceWatch.h"

namespace Platform {

// Always held by shared_ptr. All methods: any thread.
class StandingRegistrations : public std::enable_shared_from_this<StandingRegistrations> {
 public:
  // How the service is spoken to: of the two blocks one is called, on the connection's queue.
  struct Service {
    std::function<void(const Text& identifier, Reply<std::optional<EndpointRef>>,
                       NSXPCErrorHandler)>
        retrieve;
    std::function<void(const EndpointRef&, const Text& identifier, Reply<bool>, NSXPCErrorHandler)>
        store;
  };

  // One registration, until another takes its identifier.
  struct Entry;
  using Noted = std::shared_ptr<Entry>;

  StandingRegistrations(Text name, Service service);

  // Called before the message that it is about is sent, so that what is sent again never overtakes
  // it. Endpoints are held weakly; those of other processes' listeners are not registered again.
  // Null for a null endpoint, which will be refused, and changes nothing.
  Noted note(const EndpointRef& endpoint, const Text& identifier);
  void forget(const Text& identifier);
  // Called inside the registration's reply block.
  void answered(const Noted& noted);

  // The connection was lost, or nobody is there. Does nothing when nothing is noted.
  void serviceIsAway();

 private:
  enum class Outcome { known, unknown, failed };
  void check();
  void ask(const Text& identifier, bool isFirst);
  void take(const Text& identifier, bool isFirst, Outcome outcome);
  void offer(const Text& identifier, const Noted& entry);
  void putBack(const EndpointRef& replaced, const Text& identifier, const Noted& offered);
  bool dropEnded();

  const Text name_;
  const Service service_;
  const dispatch_queue_t queue_;

  std::mutex mutex_;
  // Protected by mutex_:
  std::map<Text, Noted> entries_;        // and what they hold
  std::unique_ptr<ServiceWatch> watch_;  // null while the service is there
  bool isDue_ = false;                   // `check` comes soon
};

}  // namespace Platform
