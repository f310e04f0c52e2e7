#include "service/gateway_service.h"

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <ctime>

#include "base/process_log.h"
#include "base/service_settings.h"
#include "protocol/operation_deadline.h"
#include "service/startup.h"

namespace corvane {

GatewayService::GatewayService()
    : TCService("Corvane"),
      server_([this](std::string_view request) { return dispatcher_.Dispatch(request); }) {
  server_.SetMaxWorkers(kMaxConnections);
  server_.SetIdleTimeoutMs(kIdleTimeoutMs);
}

bool GatewayService::OnInit() {
  server_.SetPort(static_cast<uint16_t>(g_settings.listenPort));
  const std::string address = g_settings.bindAddress.value_or("");
  server_.SetBindAddress(address);
  if (!server_.Start()) {
    WriteLog(kLogError, "Cannot listen on port %d (address \"%s\")\n", g_settings.listenPort,
             address.c_str());
    std::fprintf(stderr, "corvane: cannot listen on port %d (address \"%s\")\n",
                 g_settings.listenPort, address.c_str());
    return false;
  }
  if (checkMail_) checkMail_->Start();
  // The one line a foreground run shows of itself; the log has the rest.
  std::fprintf(stderr, "corvane %d.%d: listening on %s:%u, program directory %s, log %s\n",
               kMajorVersion, kMinorVersion, address.empty() ? "0.0.0.0" : address.c_str(),
               static_cast<unsigned>(server_.BoundPort()), programDirectory_.c_str(),
               g_logWriter ? g_logWriter->FileNameFor(std::time(nullptr)).c_str() : "none");
  return true;
}

void GatewayService::Run() {
  server_.Run();
}

void GatewayService::OnStop() {
  // Mail operations in progress end now, whatever their servers do, so the
  // threads below are joined at once.
  OperationDeadline::StopAll();
  server_.Shutdown();
  WriteLog(kLogInfo, "Program terminal\n");
  std::fprintf(stderr, "corvane: stopped\n");
  if (checkMail_) checkMail_->Stop();
  DestroyGlobals();
  SetStatus(kStopped);
}

void BlockStopSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
}

}  // namespace corvane
