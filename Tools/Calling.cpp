// call and send: a message to whatever is served under an identifier.

#include <algorithm>
#include <future>
#include <memory>
#include <utility>
#include <variant>

#include "Platform/Runtime/Escaped.h"
#include "Platform/XPC/UntypedProxy.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

using Answer = std::variant<Array, NSXPCConnectionError>;

// None when it does not come in time, or the message is larger than the wire takes.
struct Call {
  bool isTooLarge = false;
  std::optional<Answer> answer;
};

Call askAndWait(const UntypedProxy& proxy, const std::string& selector, const Array& arguments,
                Patience patience) {
  const auto promise = std::make_shared<std::promise<Answer>>();
  auto answer = promise->get_future();
  const bool isSent = proxy.call(
      selector, arguments, [promise](Array values) { promise->set_value(std::move(values)); },
      [promise](NSXPCConnectionError error) { promise->set_value(error); });
  if (!isSent) return {true, {}};
  if (answer.wait_for(patience) != std::future_status::ready) return {};
  return {false, answer.get()};
}

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
  switch (error) {
    case NSXPCConnectionError::refused:
      fail(Status::refused, "whoever serves " + shown(identifier) + " has refused: it knows no " +
                                escaped(selector) + ", or not with these arguments.");
    case NSXPCConnectionError::replyInvalid:
      fail(Status::refused,
           "whoever serves " + shown(identifier) + " has answered with what is no value.");
    default:
      fail(Status::ended, "whoever serves " + shown(identifier) + " ended before it answered.");
  }
}

}  // namespace

Status call(const Options& options, Expecting expecting, const Text& identifier,
            const std::string& typedSelector, const std::vector<std::string>& arguments) {
  const std::string selector = typed(typedSelector, "the selector").utf8();
  checkSelector(selector, expecting, arguments.size());
  Registry registry(options.patience());
  const Array values = valuesOf(arguments, registry);
  const EndpointRef endpoint = registry.require(identifier);
  if (!look(*endpoint).isBound) failAsGone(identifier);
  const auto connection = NSXPCConnection::initWithListenerEndpoint(endpoint);
  connection->resume();

  const UntypedProxy proxy(connection);
  Call call;
  if (expecting == Expecting::answer) {
    call = askAndWait(proxy, selector, values, options.patience());
  } else if (!(call.isTooLarge = !proxy.send(selector, values))) {
    // Messages are received in order: the refusal of a call that nobody knows tells that this one
    // has been, which nothing else does.
    call = askAndWait(proxy, "", {}, options.patience());
  }
  if (call.isTooLarge) fail(Status::badArgument, "the message is larger than the wire takes.");
  if (!call.answer) {
    fail(Status::notInTime, "whoever serves " + shown(identifier) + " runs, but " +
                                (expecting == Expecting::answer ? "did not answer in time."
                                                                : "did not receive it in time."));
  }
  const auto* const error = std::get_if<NSXPCConnectionError>(&*call.answer);
  if (expecting == Expecting::nothing && error && *error == NSXPCConnectionError::refused) {
    return Status::done;
  }
  if (error) failWith(*error, identifier, selector);
  auto& answer = std::get<Array>(*call.answer);
  if (!answer.empty()) {
    print({{jsonFromValue(answer.size() == 1 ? answer[0] : Value(std::move(answer)))}});
  }
  return Status::done;
}

}  // namespace Gantrel_Sync_Helper
