#include "transport/sync_socket_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <iterator>
#include <new>
#include <system_error>

#include "transport/console.h"

namespace corvane {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kAcceptStartWait{30000};
constexpr milliseconds kAcceptEndWait{10000};
constexpr milliseconds kGraceWait{3000};
constexpr milliseconds kHousekeepingPeriod{1000};
// Out of descriptors or buffers: the pending connection stays queued, so try
// again shortly instead of spinning on the error.
constexpr milliseconds kAcceptRetryPause{100};

void Refuse(int socket) {
  ::shutdown(socket, SHUT_WR);
  ::close(socket);
}

std::string FormatAddress(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = "";
  const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
  inet_ntop(address.ss_family,
            address.ss_family == AF_INET6 ? static_cast<const void*>(&v6.sin6_addr) : &v4.sin_addr,
            text, sizeof text);
  return text;
}

uint16_t PortOf(const sockaddr_storage& address) {
  return ntohs(address.ss_family == AF_INET6
                   ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                   : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

// The listening address for `text` (empty: every IPv4 address), or false for
// anything but an address literal: a name could stand for any address.
bool ListeningAddress(const std::string& text, uint16_t port, sockaddr_storage& address) {
  address = {};
  auto& v4 = reinterpret_cast<sockaddr_in&>(address);
  auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
  v4.sin_family = AF_INET;
  v4.sin_port = htons(port);
  if (text.empty()) return true;
  if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) return true;
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(port);
  return inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1;
}

}  // namespace

CSyncSocketServer::CSyncSocketServer(RequestDispatcher dispatcher)
    : dispatcher_(std::move(dispatcher)) {}

CSyncSocketServer::~CSyncSocketServer() {
  Shutdown();
  StopHousekeeping();
}

void CSyncSocketServer::SetPort(uint16_t port) {
  port_ = port;
}

void CSyncSocketServer::SetBindAddress(std::string address) {
  bindAddress_ = std::move(address);
}

void CSyncSocketServer::SetMaxWorkers(int32_t n) {
  std::lock_guard lock(lock_);
  maxWorkers_ = n;
}

void CSyncSocketServer::SetIdleTimeoutMs(int32_t ms) {
  std::lock_guard lock(lock_);
  idleTimeoutMs_ = ms;
  for (const auto& worker : workers_) worker->SetIdleTimeoutMs(ms);
}

size_t CSyncSocketServer::WorkerCount() const {
  std::lock_guard lock(lock_);
  return workers_.size();
}

bool CSyncSocketServer::Start() {
  std::lock_guard control(controlMutex_);
  if (running_) return true;
  stopping_ = false;
  {
    std::lock_guard lock(stopMutex_);
    stopSignalled_ = false;
  }
  {
    std::lock_guard lock(acceptMutex_);
    acceptState_ = AcceptState::kStarting;
  }
  try {
    if (!housekeepingThread_.joinable()) {
      housekeepingThread_ = std::thread(&CSyncSocketServer::HousekeepingLoop, this);
    }
    acceptThread_ = std::thread(&CSyncSocketServer::AcceptLoop, this);
  } catch (const std::system_error&) {
    StopHousekeeping();
    return false;
  }

  std::unique_lock lock(acceptMutex_);
  acceptCv_.wait_for(lock, kAcceptStartWait,
                     [this] { return acceptState_ != AcceptState::kStarting; });
  if (acceptState_ == AcceptState::kListening) {
    std::lock_guard run(runMutex_);
    running_ = true;
    return true;
  }
  lock.unlock();
  // A port that cannot be bound ends the accept thread at once; there is
  // nothing to wait out.
  Console("CSyncSocketServer::Run()   Terminate AcceptThread\n");
  stopping_ = true;
  int listening = listenSocket_.exchange(-1);
  if (listening >= 0) ::shutdown(listening, SHUT_RDWR);
  acceptThread_.join();
  StopHousekeeping();
  return false;
}

int CSyncSocketServer::Run() {
  Start();
  std::unique_lock lock(runMutex_);
  runCv_.wait(lock, [this] { return !running_; });
  return running_ ? 1 : 0;
}

void CSyncSocketServer::Shutdown() {
  std::lock_guard control(controlMutex_);
  if (!running_) return;
  stopping_ = true;
  int listening = listenSocket_.exchange(-1);
  // Closing alone would leave accept() blocked; shutting the socket down
  // makes it fail, and the accept thread closes the descriptor itself.
  if (listening >= 0) ::shutdown(listening, SHUT_RDWR);
  {
    std::unique_lock lock(acceptMutex_);
    if (!acceptCv_.wait_for(lock, kAcceptEndWait,
                            [this] { return acceptState_ == AcceptState::kEnded; })) {
      Console("CSyncSocketServer::Shutdown()   Terminate RecvThread\n");
    }
  }
  acceptThread_.join();
  StopHousekeeping();

  // Give requests in progress a moment to get their answers out.
  {
    std::unique_lock lock(settledMutex_);
    settledCv_.wait_for(lock, kGraceWait, [this] { return AllWorkersSettled(); });
  }

  std::list<std::unique_ptr<CSocketWorker>> workers;
  {
    std::lock_guard lock(lock_);
    for (const auto& worker : workers_) worker->CloseSocket();
    workers.swap(workers_);
  }
  for (auto& worker : workers) DeleteWorker(std::move(worker));

  std::lock_guard run(runMutex_);
  running_ = false;
  runCv_.notify_all();
}

void CSyncSocketServer::AcceptLoop() {
  auto finish = [this](AcceptState state) {
    {
      std::lock_guard lock(acceptMutex_);
      acceptState_ = state;
    }
    acceptCv_.notify_all();
  };

  sockaddr_storage address;
  if (!ListeningAddress(bindAddress_, port_, address)) return finish(AcceptState::kFailed);
  int listening = ::socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listening < 0) return finish(AcceptState::kFailed);
  int reuse = 1;
  ::setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  socklen_t addressLength = sizeof address;
  if (::bind(listening, reinterpret_cast<sockaddr*>(&address), addressLength) < 0 ||
      ::listen(listening, SOMAXCONN) < 0) {
    Refuse(listening);
    return finish(AcceptState::kFailed);
  }
  if (::getsockname(listening, reinterpret_cast<sockaddr*>(&address), &addressLength) == 0) {
    boundPort_ = PortOf(address);
  }
  listenSocket_ = listening;
  finish(AcceptState::kListening);

  while (true) {
    sockaddr_storage peer{};
    socklen_t peerLength = sizeof peer;
    int client =
        ::accept4(listening, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_CLOEXEC);
    if (client >= 0) {
      Admit(client, FormatAddress(peer), PortOf(peer));
      continue;
    }
    int error = errno;
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
      std::this_thread::sleep_for(kAcceptRetryPause);
      continue;
    }
    if (!stopping_) continue;
    break;
  }
  listenSocket_ = -1;
  Refuse(listening);
  finish(AcceptState::kEnded);
}

void CSyncSocketServer::Admit(int socket, std::string peerAddress, uint16_t peerPort) {
  int32_t idleTimeoutMs = 0;
  bool admitted = false;
  {
    std::lock_guard lock(lock_);
    // A worker whose client has gone counts while its request is still being
    // handled, here or while it is reaped: a client that sends and hangs up,
    // again and again, must not have more requests run than the limit.
    const auto taken = std::count_if(workers_.begin(), workers_.end(), [](const auto& worker) {
      return worker->SocketValid() || worker->Busy();
    });
    if (listenSocket_ >= 0 && taken + reaping_ < maxWorkers_) {
      admitted = true;
      idleTimeoutMs = idleTimeoutMs_;
    }
  }
  if (!admitted) return Refuse(socket);

  std::unique_ptr<CSocketWorker> worker;
  try {
    worker = std::make_unique<CSocketWorker>(socket, std::move(peerAddress), peerPort, dispatcher_,
                                             [this] { NotifySettled(); });
  } catch (const std::bad_alloc&) {
    return Refuse(socket);
  }
  worker->SetIdleTimeoutMs(idleTimeoutMs);
  // A worker that could not start has closed its connection; dropping it
  // releases the socket.
  if (!worker->Start()) return;
  std::lock_guard lock(lock_);
  workers_.push_back(std::move(worker));
}

void CSyncSocketServer::HousekeepingLoop() {
  while (true) {
    {
      std::unique_lock lock(stopMutex_);
      if (stopCv_.wait_for(lock, kHousekeepingPeriod, [this] { return stopSignalled_; })) {
        stopSignalled_ = false;
        return;
      }
    }
    std::list<std::unique_ptr<CSocketWorker>> closed;
    {
      std::lock_guard lock(lock_);
      for (auto it = workers_.begin(); it != workers_.end();) {
        auto next = std::next(it);
        if (!(*it)->SocketValid()) closed.splice(closed.end(), workers_, it);
        it = next;
      }
      reaping_ += static_cast<int32_t>(closed.size());
    }
    // Outside the lock: a worker may have to wait for its dispatcher to
    // return, and new connections must not wait for that.
    for (auto& worker : closed) {
      DeleteWorker(std::move(worker));
      std::lock_guard lock(lock_);
      --reaping_;
    }
  }
}

void CSyncSocketServer::StopHousekeeping() {
  if (!housekeepingThread_.joinable()) return;
  {
    std::lock_guard lock(stopMutex_);
    stopSignalled_ = true;
  }
  stopCv_.notify_all();
  housekeepingThread_.join();
}

bool CSyncSocketServer::AllWorkersSettled() const {
  std::lock_guard lock(lock_);
  for (const auto& worker : workers_) {
    if (!worker->Settled()) return false;
  }
  return true;
}

void CSyncSocketServer::NotifySettled() {
  { std::lock_guard lock(settledMutex_); }
  settledCv_.notify_all();
}

void CSyncSocketServer::DeleteWorker(std::unique_ptr<CSocketWorker> worker) {
  try {
    worker->Stop();
    worker.reset();
  } catch (const std::exception&) {
    Console("CSyncSocketServer::DeleteSocketWorker() exception.\n");
  }
}

}  // namespace corvane
