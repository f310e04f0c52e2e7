#pragma once

#include <chrono>

namespace corvane {

// The end that every network wait of one mail operation shares, besides the
// per-reply time-outs: a server trickling a line a second, or one that stops
// answering, cannot hold a request (or the gateway's stop) past it.
//
// The operation's thread opens a scope with its budget. Sockets the protocol
// clients open on that thread are watched: when the budget is spent, or the
// process stops (StopAll), they are shut down, so every read, write or wait
// on them returns at once and the operation ends with its failure answer.
class OperationDeadline {
 public:
  // Opens the scope on this thread; a budget of 0 or less sets no deadline
  // (the scope still ends at StopAll). Scopes do not nest: an inner one
  // leaves the outer one in force.
  explicit OperationDeadline(std::chrono::milliseconds budget);
  ~OperationDeadline();
  OperationDeadline(const OperationDeadline&) = delete;
  OperationDeadline& operator=(const OperationDeadline&) = delete;

  // Watches `socket` for this thread's scope (nothing without one). Unwatch
  // before closing it, so that a shut-down never reaches a reused number.
  static void Watch(int socket);
  static void Unwatch(int socket);
  // True once this thread's deadline has passed or the process is stopping.
  static bool Expired();

  // The process is stopping: every scope's sockets are shut down now, and
  // Expired() is true from here on, on every thread. For the service's stop.
  static void StopAll();

  struct Scope;

 private:
  Scope* scope_ = nullptr;
};

}  // namespace corvane
