#include "Platform/XPC/NSXPCConnection.h"

#include "Platform/Runtime/Stop.h"
#include "Platform/XPC/Connection.h"

namespace Platform {

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithMachServiceName(const Text& name) {
  return std::make_shared<NSXPCConnection>(
      std::make_shared<Connection>(Connection::NamedTarget{name}, UniqueFd()));
}

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithListenerEndpoint(
    std::shared_ptr<NSXPCListenerEndpoint> endpoint) {
  if (!endpoint) stopProcess(ExitStatus::software);
  return std::make_shared<NSXPCConnection>(
      std::make_shared<Connection>(Connection::EndpointTarget{std::move(endpoint)}, UniqueFd()));
}

NSXPCConnection::NSXPCConnection(std::shared_ptr<Connection> connection)
    : connection_(std::move(connection)) {}

NSXPCConnection::~NSXPCConnection() {
  connection_->close();
}

void NSXPCConnection::setExportedInterface(NSXPCInterface interface) {
  connection_->exportInterface(interface);
}

void NSXPCConnection::setExportedObject(std::shared_ptr<NSObject> object) {
  connection_->exportObject(std::move(object));
}

void NSXPCConnection::setInterruptionHandler(std::function<void()> handler) {
  connection_->setInterruptionHandler(std::move(handler));
}

void NSXPCConnection::setInvalidationHandler(std::function<void()> handler) {
  connection_->setInvalidationHandler(std::move(handler));
}

void NSXPCConnection::resume() {
  connection_->resume(std::static_pointer_cast<NSXPCConnection>(shared_from_this()));
}

void NSXPCConnection::invalidate() {
  connection_->invalidate();
}

Encoder NSXPCConnection::beginMessage(std::string_view selector) {
  Encoder encoder;
  encoder.head(Wire::Major::array, 3);
  encoder.head(Wire::Major::unsignedInteger, static_cast<std::uint64_t>(Wire::Kind::message));
  encoder.text(selector);
  return encoder;
}

Encoder NSXPCConnection::beginCall(std::string_view selector, std::uint64_t& serial) {
  serial = connection_->nextSerial();
  Encoder encoder;
  encoder.head(Wire::Major::array, 4);
  encoder.head(Wire::Major::unsignedInteger, static_cast<std::uint64_t>(Wire::Kind::call));
  encoder.head(Wire::Major::unsignedInteger, serial);
  encoder.text(selector);
  return encoder;
}

void NSXPCConnection::sendMessage(OutgoingFrame frame) {
  connection_->sendMessage(std::move(frame));
}

void NSXPCConnection::sendCall(std::uint64_t serial, OutgoingFrame frame, DecodeReply onReply,
                               SharedErrorHandler onError) {
  connection_->sendCall(serial, std::move(frame), std::move(onReply), std::move(onError));
}

std::optional<NSXPCConnectionError> NSXPCConnection::waitForCall(std::uint64_t serial,
                                                                 OutgoingFrame frame,
                                                                 const DecodeReply& onReply) {
  return connection_->waitForCall(serial, std::move(frame), onReply);
}

}  // namespace Platform
