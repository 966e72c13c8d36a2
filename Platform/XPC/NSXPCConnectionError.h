// What becomes of a call that has no answer, and who is told.
#pragma once

#include <functional>
#include <memory>

namespace Platform {

enum class NSXPCConnectionError {
  interrupted,   // the service is not there, or went away before it answered
  invalid,       // the connection is over, or was never resumed
  refused,       // the peer knows no such message, did not like its arguments, or dropped the reply
                 // block; or so many handlers wait in this process that no thread is left
  replyInvalid,  // the answer is not of the interface's types, or an endpoint of it did not arrive
  timedOut,      // no answer came within the time limit; one that comes later is dropped
};

using NSXPCErrorHandler = std::function<void(NSXPCConnectionError)>;
// A proxy's handler is one for all its calls, so they share it. Null when there is none.
using SharedErrorHandler = std::shared_ptr<const NSXPCErrorHandler>;

}  // namespace Platform
