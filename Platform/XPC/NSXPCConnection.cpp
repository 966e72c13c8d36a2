#include "Platform/XPC/NSXPCConnection.h"

#include "Platform/Runtime/Stop.h"
#include "Platform/XPC/AnsweringProcess.h"
#include "Platform/XPC/Connection.h"

namespace Platform {

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithMachServiceName(const Text& name) {
  return std::make_shared<NSXPCConnection>(std::make_shared<Connection>(Dialer::Named{name}));
}

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithListenerEndpoint(
    std::shared_ptr<NSXPCListenerEndpoint> endpoint) {
  if (!endpoint) stopProcess(ExitStatus::software);
  return std::make_shared<NSXPCConnection>(
      std::make_shared<Connection>(Dialer::Endpoint{std::move(endpoint)}));
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
  connection_->setHandler(&Connection::Handlers::interruption, std::move(handler));
}

void NSXPCConnection::setLinkLossHandler(std::function<void()> handler) {
  connection_->setHandler(&Connection::Handlers::linkLoss, std::move(handler));
}

void NSXPCConnection::setInvalidationHandler(std::function<void()> handler) {
  connection_->setHandler(&Connection::Handlers::invalidation, std::move(handler));
}

void NSXPCConnection::resume() {
  connection_->resume(shared_from_this());
}

void NSXPCConnection::invalidate() {
  connection_->invalidate();
}

bool NSXPCConnection::waitUntilSent(std::chrono::milliseconds limit) {
  return connection_->waitUntilSent(limit);
}

std::uint64_t NSXPCConnection::answeringProcess() {
  return AnsweringProcess::current();
}

Encoder NSXPCConnection::beginMessage(std::string_view selector) {
  Encoder encoder(3, Wire::Kind::message);
  encoder.text(selector);
  return encoder;
}

Encoder NSXPCConnection::beginCall(std::string_view selector, std::uint64_t& serial) {
  serial = connection_->nextSerial();
  Encoder encoder(4, Wire::Kind::call);
  encoder.unsignedInteger(serial);
  encoder.text(selector);
  return encoder;
}

void NSXPCConnection::sendMessage(OutgoingFrame&& frame) {
  connection_->sendMessage(std::move(frame));
}

void NSXPCConnection::sendCall(std::uint64_t serial, OutgoingFrame&& frame, ReplyReader onReply,
                               SharedErrorHandler onError) {
  connection_->sendCall(serial, std::move(frame), {std::move(onReply), std::move(onError)});
}

std::optional<NSXPCConnectionError> NSXPCConnection::waitForCall(
    std::uint64_t serial, OutgoingFrame&& frame, const ReplyReader& onReply,
    std::optional<std::chrono::milliseconds> limit) {
  return connection_->waitForCall(serial, std::move(frame), onReply, limit);
}

}  // namespace Platform
