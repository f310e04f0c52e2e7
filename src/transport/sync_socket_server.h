#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "transport/socket_worker.h"

namespace corvane {

// The TCP request server: accepts client connections on one port, serves each
// with its own CSocketWorker up to a limit of concurrent connections, reaps
// closed connections every second, and shuts everything down on request.
class CSyncSocketServer {
 public:
  static constexpr int32_t kDefaultMaxWorkers = 100;

  explicit CSyncSocketServer(RequestDispatcher dispatcher);
  // Shuts the server down if it is still running.
  ~CSyncSocketServer();
  CSyncSocketServer(const CSyncSocketServer&) = delete;
  CSyncSocketServer& operator=(const CSyncSocketServer&) = delete;

  // The port to listen on (host order); 0 takes any free port.
  void SetPort(uint16_t port);
  // The address to listen on: an IPv4 or IPv6 literal; empty is every IPv4
  // address. Set before Start.
  void SetBindAddress(std::string address);
  // Connections beyond this many at once are closed as soon as accepted.
  void SetMaxWorkers(int32_t n);
  // Closes a connection silent for longer than `ms`; negative or 0 means no
  // limit. Applies to connections already open too.
  void SetIdleTimeoutMs(int32_t ms);

  // Starts the housekeeping and accept threads; true once the server listens
  // (or was already running). False when the port cannot be bound.
  bool Start();
  // Start, then block until Shutdown. Returns 1 while running, so 0 after a
  // shutdown or a failed start.
  int Run();
  // Stops accepting, gives requests in progress up to 3 s to be answered,
  // closes every connection and ends every thread. Safe to call twice and
  // from any thread other than the server's own.
  void Shutdown();

  // The port actually listened on; 0 before Start.
  uint16_t BoundPort() const { return boundPort_.load(); }
  size_t WorkerCount() const;
  bool Running() const { return running_.load(); }

 private:
  void AcceptLoop();
  void HousekeepingLoop();
  void Admit(int socket, std::string peerAddress, uint16_t peerPort);
  // Ends the housekeeping thread and waits for it.
  void StopHousekeeping();
  // True when no worker is between a request's last byte and its answer
  // leaving.
  bool AllWorkersSettled() const;
  void NotifySettled();
  static void DeleteWorker(std::unique_ptr<CSocketWorker> worker);

  const RequestDispatcher dispatcher_;

  std::mutex controlMutex_;  // one Start or Shutdown at a time
  std::thread acceptThread_;
  std::thread housekeepingThread_;

  // Accept thread start-up hand-shake and end.
  std::mutex acceptMutex_;
  std::condition_variable acceptCv_;
  enum class AcceptState {
    kStarting,
    kListening,
    kFailed,
    kEnded
  } acceptState_ = AcceptState::kStarting;

  std::mutex stopMutex_;
  std::condition_variable stopCv_;
  bool stopSignalled_ = false;

  mutable std::mutex lock_;  // guards workers_, reaping_, maxWorkers_, idleTimeoutMs_
  std::list<std::unique_ptr<CSocketWorker>> workers_;
  int32_t reaping_ = 0;  // closed workers taken out of workers_, not yet destroyed
  int32_t maxWorkers_ = kDefaultMaxWorkers;
  int32_t idleTimeoutMs_ = -1;

  // Wakes the shutdown's grace wait as soon as the last request is answered.
  std::mutex settledMutex_;
  std::condition_variable settledCv_;

  std::atomic<uint16_t> port_{0};
  std::string bindAddress_;
  std::atomic<uint16_t> boundPort_{0};
  std::atomic<bool> running_{false};
  std::atomic<bool> stopping_{false};
  std::atomic<int> listenSocket_{-1};
  std::condition_variable runCv_;
  std::mutex runMutex_;
};

}  // namespace corvane
