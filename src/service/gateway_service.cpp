#include "service/gateway_service.h"

#include <pthread.h>
#include <signal.h>

#include <thread>

#include "service/process_log.h"
#include "service/service_settings.h"
#include "service/startup.h"

namespace corvane {

GatewayService::GatewayService()
    : server_([this](std::string_view request) { return dispatcher_.Dispatch(request); }) {
  server_.SetMaxWorkers(kMaxConnections);
  server_.SetIdleTimeoutMs(kIdleTimeoutMs);
}

void GatewayService::Run() {
  server_.SetPort(static_cast<uint16_t>(g_settings.listenPort));
  server_.Run();
}

void GatewayService::OnStop() {
  server_.Shutdown();
  WriteLog(kLogInfo, "Program terminal\n");
  if (checkMail_) checkMail_->Stop();
  DestroyGlobals();
}

sigset_t BlockStopSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  return stopSignals;
}

void RunUntilStopSignal(GatewayService& service) {
  // Blocked in every thread; one thread waits for them.
  sigset_t stopSignals = BlockStopSignals();

  std::thread controller([&service, stopSignals] {
    int received = 0;
    sigwait(&stopSignals, &received);
    service.OnStop();
  });
  service.Run();
  // A server that could not start returns on its own: stop as if signalled.
  pthread_kill(controller.native_handle(), SIGTERM);
  controller.join();
}

}  // namespace corvane
