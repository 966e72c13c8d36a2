// An application as scripts/soak drives it: each line of its input is a request, each line of its
// output the answer. A listener is named by the inode of its socket, and answers with that number.
//
//   offer IDENTIFIER      a new listener's name; nobody else knows it yet
//   register IDENTIFIER   what was offered last, in place of the listener before, which then ends:
//                         "registered", or "none" without an agent
//   remove IDENTIFIER     "removed", or "none"
//   ask IDENTIFIER        what the listener found under the identifier answers; "nil" when there is
//                         none, "gone" when nobody listens there any more, "none" without an agent

#include <sys/stat.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "Platform/XPC/NSXPCListener.h"
#include "Shared/Communication.h"
#include "Shared/EndPointHandler.h"
#include "Shared/GApp.h"

using namespace Platform;
using namespace Gantrel_Sync_Helper;

namespace {

class Offer final : public NSObject, public Communication, public NSXPCListenerDelegate {
 public:
  static std::shared_ptr<Offer> make() {
    auto offer = std::make_shared<Offer>();
    if (!offer->listener_) return nullptr;
    offer->listener_->setDelegate(offer);
    offer->listener_->resume();
    return offer;
  }

  EndpointRef endpoint() const { return listener_->endpoint(); }
  std::uint64_t number() const {
    struct stat status {};
    ::fstat(endpoint()->descriptor(), &status);
    return status.st_ino;
  }

  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Communication>());
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }

  void fetchUpcomingMeetings(Reply<Value> reply) override { reply(number()); }
  void openMeetingWithId(Text) override {}
  void createNewMeeting() override {}
  void displaySyncing() override {}
  void displayNotSyncing() override {}

 private:
  const std::shared_ptr<NSXPCListener> listener_ = NSXPCListener::anonymousListener();
};

std::string ask(EndPointHandler& agent, const Text& identifier) {
  const auto endpoint = agent.retrieveEndpoint(identifier);
  if (!endpoint) return "none";
  if (!*endpoint) return "nil";
  const auto connection = NSXPCConnection::initWithListenerEndpoint(*endpoint);
  connection->resume();
  std::string answer = "gone";
  connection->synchronousRemoteObjectProxyWithErrorHandler<Communication>({})
      ->fetchUpcomingMeetings(
          [&](const Value& number) { answer = std::to_string(number.asUnsigned().value_or(0)); });
  return answer;
}

}  // namespace

int main() {
  const auto agent = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
  agent->connect();
  std::unordered_map<Text, std::shared_ptr<Offer>> registered;
  std::shared_ptr<Offer> offered;
  std::string request;
  std::string word;
  while (std::cin >> request >> word) {
    const Text identifier = Text::fromUtf8(std::move(word)).value_or(Text());
    std::string answer;
    if (request == "offer") {
      offered = Offer::make();
      if (!offered) return 1;
      answer = std::to_string(offered->number());
    } else if (request == "register") {
      answer = agent->registerEndpoint(offered->endpoint(), identifier) ? "registered" : "none";
      registered[identifier] = std::move(offered);
    } else if (request == "remove") {
      agent->removeEndpoint(identifier);
      answer = agent->retrieveEndpoint(identifier) ? "removed" : "none";
      registered.erase(identifier);
    } else {
      answer = ask(*agent, identifier);
    }
    std::cout << answer << std::endl;
  }
}
