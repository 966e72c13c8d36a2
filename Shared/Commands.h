// Commands: things that the user asks for, as small values that can be carried out, and that may
// tell how it goes.
//
// A command is copied like any value; the callback of a copy is the same one, not a copy of it.
// Code that carries commands out, shows their state or takes them back holds them by these
// interfaces, which know nothing of one another.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Shared/CommandState.h"

namespace Gantrel_Sync_Helper {

class ExecutableCommandProtocol {
 public:
  virtual ~ExecutableCommandProtocol() = default;

  // Carries the command out and returns when it has ended: whether what the user asked for was
  // done. Waits for the desktop's opener, at most some seconds.
  virtual bool execute() = 0;
};

class StateUpdatableCommandProtocol {
 public:
  // Told each new state of a command, on the thread that carries it out. Null: nobody is told.
  using StateUpdated = std::shared_ptr<const std::function<void(CommandState)>>;

  virtual ~StateUpdatableCommandProtocol() = default;

  virtual StateUpdated stateUpdated() const = 0;
  virtual void setStateUpdated(StateUpdated stateUpdated) = 0;
  virtual CommandState state() const = 0;
  // Only stores: what `execute` sets is told, not what others do.
  virtual void setState(CommandState state) = 0;
};

class UndoableCommandProtocol {
 public:
  virtual ~UndoableCommandProtocol() = default;

  // Takes back what carrying the command out did.
  virtual void undo() = 0;
};

// Used by one thread at a time, any thread, as all commands.
class OpenHelpCenterCommand final : public ExecutableCommandProtocol {
 public:
  // Opens the help centre's page.
  bool execute() override;
};

// What the commands with a state have in common. A new one is at `none` and has no callback;
// `execute` takes it to `executing` and then to `finished` or `failed`, and tells the callback at
// each step, once the state is set.
class StatefulCommand : public ExecutableCommandProtocol, public StateUpdatableCommandProtocol {
 public:
  bool execute() final;

  StateUpdated stateUpdated() const final { return stateUpdated_; }
  void setStateUpdated(StateUpdated stateUpdated) final { stateUpdated_ = std::move(stateUpdated); }
  CommandState state() const final { return state_; }
  void setState(CommandState state) final { state_ = state; }

 private:
  // Whether what the user asked for was done.
  virtual bool carryOut() = 0;

  void reach(CommandState state);

  StateUpdated stateUpdated_;
  CommandState state_ = CommandState::none;
};

// Opens the page for feedback and support.
class FeedbackAndSupportCommand final : public StatefulCommand {
  bool carryOut() override;
};

// Opens a mail to support.
class SupportCommand final : public StatefulCommand {
  bool carryOut() override;
};

// Opens a mail to support with the log for support. Fails when there is none.
class SendLogsToSupportCommand final : public StatefulCommand {
  bool carryOut() override;
};

// Writes what the product's applications logged to the journal in the last day to a file of the
// user's, and gives its path. None when there is nothing of the kind, or the file cannot be written
// (LogExcerpt.h).
std::optional<std::string> writeLogForSupport();

}  // namespace Gantrel_Sync_Helper
