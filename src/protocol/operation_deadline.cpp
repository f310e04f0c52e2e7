#include "protocol/operation_deadline.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace corvane {

struct OperationDeadline::Scope {
  using Clock = std::chrono::steady_clock;

  std::optional<Clock::time_point> end;  // none: only the stop ends it
  std::mutex lock;
  std::condition_variable wake;
  std::vector<int> sockets;
  bool closing = false;
  std::atomic<bool> expired{false};
  std::thread watchdog;  // started with the first watched socket

  // Shuts the watched sockets down at the end, unless the scope closes first.
  void StartWatchdog() {
    if (!end || watchdog.joinable()) return;
    watchdog = std::thread([this] {
      std::unique_lock guard(lock);
      if (wake.wait_until(guard, *end, [this] { return closing; })) return;
      guard.unlock();
      Expire();
    });
  }

  // Shuts the watched sockets down; they stay open (and watched) until their
  // client closes them.
  void Expire() {
    std::lock_guard guard(lock);
    expired = true;
    for (int socket : sockets) ::shutdown(socket, SHUT_RDWR);
  }
};

namespace {

// The stop is process-wide, like the service state it comes from.
std::atomic<bool> g_stopping{false};
std::mutex g_scopesLock;
std::vector<OperationDeadline::Scope*> g_scopes;

thread_local OperationDeadline::Scope* t_scope = nullptr;

}  // namespace

OperationDeadline::OperationDeadline(std::chrono::milliseconds budget) {
  if (t_scope != nullptr) return;
  auto scope = std::make_unique<Scope>();
  Scope* raw = scope.get();
  if (budget.count() > 0) raw->end = Scope::Clock::now() + budget;
  {
    std::lock_guard guard(g_scopesLock);
    g_scopes.push_back(raw);
  }
  if (g_stopping) raw->Expire();
  scope_ = scope.release();
  t_scope = scope_;
}

OperationDeadline::~OperationDeadline() {
  if (scope_ == nullptr) return;
  std::unique_ptr<Scope> scope(scope_);
  t_scope = nullptr;
  {
    std::lock_guard guard(g_scopesLock);
    g_scopes.erase(std::find(g_scopes.begin(), g_scopes.end(), scope_));
  }
  {
    std::lock_guard guard(scope->lock);
    scope->closing = true;
  }
  scope->wake.notify_all();
  if (scope->watchdog.joinable()) scope->watchdog.join();
}

void OperationDeadline::Watch(int socket) {
  if (t_scope == nullptr || socket < 0) return;
  {
    std::lock_guard guard(t_scope->lock);
    t_scope->sockets.push_back(socket);
    if (t_scope->expired) ::shutdown(socket, SHUT_RDWR);
  }
  // An operation that never opens a socket (ConfigMail) costs no thread.
  t_scope->StartWatchdog();
}

void OperationDeadline::Unwatch(int socket) {
  if (t_scope == nullptr) return;
  std::lock_guard guard(t_scope->lock);
  auto& sockets = t_scope->sockets;
  sockets.erase(std::remove(sockets.begin(), sockets.end(), socket), sockets.end());
}

bool OperationDeadline::Expired() {
  if (g_stopping) return true;
  if (t_scope == nullptr) return false;
  return t_scope->expired || (t_scope->end && Scope::Clock::now() >= *t_scope->end);
}

void OperationDeadline::StopAll() {
  g_stopping = true;
  std::lock_guard guard(g_scopesLock);
  for (Scope* scope : g_scopes) scope->Expire();
}

}  // namespace corvane
