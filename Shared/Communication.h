// Communication: the interface through which the product's applications talk to each other.
#pragma once

#include "Platform/XPC/NSXPCConnection.h"

namespace Gantrel_Sync_Helper {

class Communication {
 public:
  virtual ~Communication() = default;

  virtual void openMeetingWithId(Platform::Text identifier) = 0;
  virtual void createNewMeeting() = 0;
  // Hands the upcoming meetings to the reply block, as a value of any kind. The example
  // applications answer an array of dictionaries; see Examples/Meetings.h.
  virtual void fetchUpcomingMeetings(Platform::Reply<Platform::Value> reply) = 0;
  virtual void displaySyncing() = 0;
  virtual void displayNotSyncing() = 0;

  class Proxy;
  static consteval auto protocol() {
    using Platform::method;
    return Platform::Protocol(
        "Communication", method<&Communication::openMeetingWithId>("openMeetingWithId:"),
        method<&Communication::createNewMeeting>("createNewMeeting"),
        method<&Communication::fetchUpcomingMeetings>("fetchUpcomingMeetings:"),
        method<&Communication::displaySyncing>("displaySyncing"),
        method<&Communication::displayNotSyncing>("displayNotSyncing"));
  }
};

class Communication::Proxy final : public Platform::RemoteProxy<Communication> {
 public:
  using RemoteProxy::RemoteProxy;

  void openMeetingWithId(Platform::Text identifier) override {
    send<&Communication::openMeetingWithId>(identifier);
  }
  void createNewMeeting() override { send<&Communication::createNewMeeting>(); }
  void fetchUpcomingMeetings(Platform::Reply<Platform::Value> reply) override {
    send<&Communication::fetchUpcomingMeetings>(reply);
  }
  void displaySyncing() override { send<&Communication::displaySyncing>(); }
  void displayNotSyncing() override { send<&Communication::displayNotSyncing>(); }
};

}  // namespace Gantrel_Sync_Helper
