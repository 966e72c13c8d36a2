// call and send: a message to whatever is served under an identifier.

#include <algorithm>
#include <optional>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Platform/XPC/UntypedProxy.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

Array valuesOf(const std::vector<std::string>& arguments, Registry& registry) {
  const auto findEndpoint = [&registry](const std::string& identifier) {
    return Value(registry.require(typed(identifier, "the identifier of an endpoint")));
  };
  Array values;
  for (const std::string& argument : arguments) {
    const std::string which = "argument " + std::to_string(values.size() + 1);
    if (!Text::isUtf8(argument)) fail(Status::badArgument, which + " is not text in UTF-8.");
    std::string problem;
    auto value = valueFromJson(argument, findEndpoint, problem);
    if (!value) fail(Status::badArgument, which + " " + problem + ".");
    values.push_back(*std::move(value));
  }
  return values;
}

// A selector has a colon for each argument and for the reply block.
void checkSelector(const std::string& selector, Expecting expecting, std::size_t given) {
  const auto colons = static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
  const std::size_t ofReply = expecting == Expecting::answer ? 1 : 0;
  if (colons == given + ofReply) return;
  std::string sentence =
      escaped(selector) + " takes " + std::to_string(colons) + " by its colons: ";
  sentence += expecting == Expecting::answer
                  ? "call gives it " + std::to_string(given) + " and the reply block"
                  : "send gives it " + std::to_string(given) + ", and no reply block";
  fail(Status::badArgument, sentence + ".");
}

[[noreturn]] void failWith(NSXPCConnectionError error, const Text& identifier,
                           const std::string& selector) {
  const std::string who = "whoever serves " + shown(identifier);
  switch (error) {
    case NSXPCConnectionError::refused:
      fail(Status::refused, who + " has refused: it knows no " + escaped(selector) +
                                ", or not with these arguments.");
    case NSXPCConnectionError::replyInvalid:
      fail(Status::ended, who + " answered, but the answer has not arrived whole.");
    case NSXPCConnectionError::timedOut:
      fail(Status::notInTime, who + " runs, but did not answer in time.");
    default:
      fail(Status::ended, who + " ended before it answered, or sent what is not understood.");
  }
}

}  // namespace

Status call(const Options& options, Expecting expecting, const Text& identifier,
            const std::string& typedSelector, const std::vector<std::string>& arguments) {
  const std::string selector = typed(typedSelector, "the selector").utf8();
  checkSelector(selector, expecting, arguments.size());
  Registry registry(options.patience());
  const Array values = valuesOf(arguments, registry);
  if (!UntypedProxy::isSendable(selector, values)) {
    fail(Status::badArgument, "the arguments are together larger than a message may be.");
  }
  const EndpointRef endpoint = registry.require(identifier);
  if (!look(*endpoint).isBound) failAsGone(identifier);
  const auto connection = NSXPCConnection::initWithListenerEndpoint(endpoint);
  connection->resume();

  const UntypedProxy proxy(connection);
  Array answer;
  std::optional<NSXPCConnectionError> error;
  if (expecting == Expecting::answer) {
    error = proxy.call(selector, values, options.patience(), answer);
  } else {
    // Messages are received in order: the refusal of a call that nobody knows tells that this one
    // has been, which nothing else does.
    proxy.send(selector, values);
    error = proxy.call("", {}, options.patience(), answer);
    if (error == NSXPCConnectionError::refused) return Status::done;
  }
  if (error) failWith(*error, identifier, selector);
  if (!answer.empty()) {
    print({{jsonFromValue(answer.size() == 1 ? answer[0] : Value(std::move(answer)))}});
  }
  return Status::done;
}

}  // namespace Gantrel_Sync_Helper
