// call and send: a message to whatever is served under an identifier.

#include <algorithm>
#include <optional>
#include <utility>

#include "Platform/XPC/UntypedProxy.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"
#include "Tools/Listeners.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

[[noreturn]] void failWith(NSXPCConnectionError error, const Text& identifier,
                           const Text& selector) {
  const std::string who = "whoever serves " + shown(identifier);
  switch (error) {
    case NSXPCConnectionError::refused:
      fail(Status::refused, who + " has refused: it knows no " + shown(selector) +
                                ", or not with these arguments, or its method gave no answer.");
    case NSXPCConnectionError::timedOut:
      fail(Status::notInTime, who + " runs, but did not answer in time.");
    default:
      fail(Status::ended, who + " ended before it answered, or sent what is not understood.");
  }
}

Status exchange(const Request& request, bool isCall) {
  const Text name = typed(request.words[0], "the selector");
  const std::string& selector = name.utf8();
  const auto colons = static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
  if (colons != request.words.size() - (isCall ? 0 : 1)) {
    fail(Status::badArgument, shown(name) + " is to have a colon for each argument" +
                                  (isCall ? " and one for the reply block." : ", and no other."));
  }
  Registry registry(request.patience());
  Array values;
  for (std::size_t i = 1; i < request.words.size(); ++i) {
    values.push_back(valueFromJson(request.words[i], "argument " + std::to_string(i), registry));
  }
  if (!UntypedProxy::isSendable(selector, values)) {
    fail(Status::badArgument, "the arguments are together larger than a message may be.");
  }
  const EndpointRef endpoint = registry.require(request.identifier);
  if (!isServed(*endpoint)) failAsGone(request.identifier);
  const auto connection = NSXPCConnection::initWithListenerEndpoint(endpoint);
  connection->resume();

  const UntypedProxy proxy(connection);
  Array answer;
  // Messages are received in order: what comes of a call that nobody knows tells that this one has
  // been, which nothing else does.
  if (!isCall) proxy.send(selector, values);
  const auto error = isCall ? proxy.call(selector, values, request.patience(), answer)
                            : proxy.call("", {}, request.patience(), answer);
  if (error && (isCall || error != NSXPCConnectionError::refused)) {
    failWith(*error, request.identifier, name);
  }
  if (isCall && !answer.empty()) {
    print({{jsonFromValue(answer.size() == 1 ? answer[0] : Value(std::move(answer)))}});
  }
  return Status::done;
}

}  // namespace

Status call(const Request& request) {
  return exchange(request, true);
}

Status send(const Request& request) {
  return exchange(request, false);
}

}  // namespace Gantrel_Sync_Helper
