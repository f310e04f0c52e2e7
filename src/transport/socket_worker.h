#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "transport/data_chunk.h"

namespace corvane {

// Given one decoded request, returns the plain answer bytes; empty means no
// answer. Called concurrently from the work threads of different connections.
using RequestDispatcher = std::function<std::string(std::string_view request)>;

// Serves one client connection with three threads: the receive thread queues
// what arrives, the work thread cuts it into frames and answers each request in
// turn, the send thread writes the queued answers and closes the connection
// when it has been idle too long. The connection counts as closed as soon as
// any of them gives up on the socket; the descriptor itself is released only
// when the worker is destroyed, so no thread ever uses a reused descriptor.
class CSocketWorker {
 public:
  static constexpr size_t kReceiveBufferSize = 32768;
  static constexpr size_t kSendBufferSize = 16384;
  static constexpr int32_t kMaxRequestLength = 20480;

  // Takes ownership of the connected `socket`. `dispatcher` must outlive the
  // worker. `onSettled` (may be empty) is called, with none of the worker's
  // locks held, whenever the worker may have become Settled().
  CSocketWorker(int socket, std::string peerAddress, uint16_t peerPort,
                const RequestDispatcher& dispatcher, std::function<void()> onSettled = {});
  // Stops the worker and closes the socket. A derived class that overrides
  // Work() must call Stop() in its own destructor.
  virtual ~CSocketWorker();
  CSocketWorker(const CSocketWorker&) = delete;
  CSocketWorker& operator=(const CSocketWorker&) = delete;

  // Starts the receive, send and work threads. On failure the connection is
  // closed, any thread already started is stopped, and false is returned.
  bool Start();

  // Closes the connection, ends the three threads (waiting for a request in
  // progress to come back from the dispatcher) and drops both queues. Safe to
  // call more than once.
  void Stop();

  // Shuts the connection down in both directions, which wakes any thread
  // blocked on it. Safe from any thread, any number of times.
  void CloseSocket();

  bool SocketValid() const { return socketValid_.load(); }

  // True when nothing is left to finish for the client: no request between
  // its last body byte and its answer being handed to the network, or the
  // connection is already closed.
  bool Settled() const;
  // True while a request is between its last body byte and its answer,
  // whether or not the client is still there.
  bool Busy() const { return inRequest_.load(); }

  // A negative value or 0 means no limit. Wakes the send thread so that a
  // shorter limit takes effect at once.
  void SetIdleTimeoutMs(int32_t ms);

  const std::string& PeerAddress() const { return peerAddress_; }
  uint16_t PeerPort() const { return peerPort_; }

 protected:
  // The request loop: reads frames off the receive queue, decodes each body,
  // has it dispatched and sends the answer. Runs on the work thread.
  virtual void Work();

  // Takes up to `n` bytes from the front of the receive queue into `dest`.
  // With `wait`, blocks until all `n` have arrived or the connection closes;
  // without, takes only what is queued. Returns the number of bytes taken.
  size_t ReadBytes(char* dest, size_t n, bool wait);

  // Encodes, frames and queues one answer; an empty answer sends nothing.
  void SendResponse(std::string_view answer);

 private:
  using Clock = std::chrono::steady_clock;

  void ReceiveLoop();
  void SendLoop();
  void WorkLoop();
  // Sends queued chunks, coalesced in `coalesced`, until the queue is empty or
  // a send fails. Called and returns with `sendMutex_` held through `lock`.
  void DrainSendQueue(std::unique_lock<std::mutex>& lock, std::string& coalesced);
  bool IdleExpired() const;
  void TouchActivity();
  void NotifySettled();

  const int socket_;
  const std::string peerAddress_;
  const uint16_t peerPort_;
  const RequestDispatcher& dispatcher_;
  const std::function<void()> onSettled_;

  std::atomic<bool> socketValid_{true};
  std::atomic<bool> stopRequested_{false};
  std::atomic<int64_t> idleTimeoutMs_{-1};  // <= 0: no limit
  std::atomic<int64_t> lastActivityMs_{0};  // on the steady clock
  std::atomic<bool> inRequest_{false};

  mutable std::mutex sendMutex_;
  std::condition_variable sendCv_;
  std::deque<DataChunk> sendQueue_;
  size_t sendQueuedBytes_ = 0;
  std::condition_variable sendRoomCv_;  // the work thread waits for room
  bool sendSignalled_ = false;          // an answer was queued since the last pass
  bool idleLimitChanged_ = false;       // the send thread must recompute its deadline
  bool sending_ = false;                // bytes taken off the queue are being sent

  std::mutex receiveMutex_;
  std::condition_variable workCv_;
  std::condition_variable receiveRoomCv_;  // the receive thread waits for room
  std::deque<DataChunk> receiveQueue_;
  size_t receiveQueuedBytes_ = 0;

  std::mutex stopMutex_;  // one Stop() at a time
  std::thread recvThread_;
  std::thread sendThread_;
  std::thread workThread_;
};

}  // namespace corvane
