#include "Platform/XPC/Answer.h"

#include <utility>

#include "Platform/XPC/Connection.h"

namespace Platform {
namespace {

OutgoingFrame refusalOf(std::uint64_t serial) {
  Encoder encoder;
  encoder.head(Wire::Major::array, 2);
  encoder.head(Wire::Major::unsignedInteger, static_cast<std::uint64_t>(Wire::Kind::refusal));
  encoder.head(Wire::Major::unsignedInteger, serial);
  return encoder.finish();
}

}  // namespace

Answer::Answer(std::uint64_t callSerial, std::weak_ptr<Connection> connection,
               std::uint64_t linkNumber)
    : connection_(std::move(connection)), linkNumber_(linkNumber) {
  serial = callSerial;
}

Answer::~Answer() {
  if (!sent_.test() && !connection_.expired()) Answer::send(refusalOf(serial));
}

void Answer::send(OutgoingFrame reply) {
  if (sent_.test_and_set()) return;
  const auto connection = connection_.lock();
  if (!connection) return;
  if (!reply.isSendable()) reply = refusalOf(serial);
  connection->sendAnswer(linkNumber_, std::move(reply));
}

}  // namespace Platform
