#include "protocol/operation_deadline.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace corvane {

struct OperationDeadline::Scope {
  std::mutex lock;
  std::condition_variable wake;
  std::vector<int> sockets;
  bool closing = false;
  std::atomic<bool> expired{false};
  std::thread watchdog;

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
  if (budget.count() > 0) {
    const auto end = std::chrono::steady_clock::now() + budget;
    raw->watchdog = std::thread([raw, end] {
      std::unique_lock guard(raw->lock);
      if (raw->wake.wait_until(guard, end, [raw] { return raw->closing; })) return;
      guard.unlock();
      raw->Expire();
    });
  }
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
  std::lock_guard guard(t_scope->lock);
  t_scope->sockets.push_back(socket);
  if (t_scope->expired) ::shutdown(socket, SHUT_RDWR);
}

void OperationDeadline::Unwatch(int socket) {
  if (t_scope == nullptr) return;
  std::lock_guard guard(t_scope->lock);
  auto& sockets = t_scope->sockets;
  sockets.erase(std::remove(sockets.begin(), sockets.end(), socket), sockets.end());
}

bool OperationDeadline::Expired() {
  return g_stopping || (t_scope != nullptr && t_scope->expired);
}

void OperationDeadline::StopAll() {
  g_stopping = true;
  std::lock_guard guard(g_scopesLock);
  for (Scope* scope : g_scopes) scope->Expire();
}

}  // namespace corvane
