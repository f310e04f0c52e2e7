#pragma once

#include <signal.h>

#include "handling/check_mail.h"
#include "handling/command_dispatcher.h"
#include "service/tc_service.h"
#include "transport/sync_socket_server.h"

namespace corvane {

// The gateway as a service: its run routine serves requests until a stop
// control arrives, its stop routine shuts everything down.
class GatewayService : public TCService {
 public:
  static constexpr int32_t kMaxConnections = 50;
  static constexpr int32_t kIdleTimeoutMs = 500000;

  GatewayService();

  // The new-mail check, started once the request port is bound and stopped
  // by OnStop before the teardown it must not outlive.
  void SetCheckMail(CheckMailThread* checkMail) { checkMail_ = checkMail; }
  // The program directory named in the start line on standard error.
  void SetProgramDirectory(std::string directory) { programDirectory_ = std::move(directory); }

  // Binds the configured port and starts accepting (and the new-mail
  // check); false, logged, when the port cannot be bound. Only then does
  // the service report itself ready, and say on standard error where it
  // listens and logs.
  bool OnInit() override;
  // Serves until `OnStop`; returns when stopped.
  void Run() override;
  // Shuts the request server down, logs "Program terminal", tears down the
  // process-wide state and reports the service stopped.
  void OnStop() override;

 private:
  CommandDispatcher dispatcher_;
  CSyncSocketServer server_;
  CheckMailThread* checkMail_ = nullptr;
  std::string programDirectory_;
};

// Blocks SIGTERM and SIGINT in the calling thread and so in every thread it
// starts afterwards: only the service's stop control may take them.
void BlockStopSignals();

}  // namespace corvane
