#pragma once

// The real gateway driven through corvane-cli, and the mail the test servers
// deliver.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "pop3/pop3_server_env.h"
#include "support/command_output.h"
#include "support/gateway_process.h"

namespace corvane::test {

// One answer as corvane-cli printed it with --json: every field by name,
// bytes as sent (a multi-valued field joined with ","), and the exit status.
struct GatewayAnswer {
  int status = -1;
  std::string output;
  std::map<std::string, std::string> fields;

  std::string operator[](const std::string& name) const {
    auto found = fields.find(name);
    return found == fields.end() ? std::string() : found->second;
  }
  bool Has(const std::string& name) const { return fields.count(name) > 0; }
  std::vector<std::string> Rows() const {  // "Row0", "Row1", ... in order
    std::vector<std::string> rows;
    for (size_t k = 0; Has("Row" + std::to_string(k)); ++k)
      rows.push_back((*this)["Row" + std::to_string(k)]);
    return rows;
  }
};

// The cli's flat JSON: string fields or arrays of strings, "\u00XX" one byte.
inline std::map<std::string, std::string> ParseAnswerJson(const std::string& json) {
  std::map<std::string, std::string> fields;
  size_t i = 0;
  auto readString = [&] {
    std::string out;
    for (++i; i < json.size() && json[i] != '"'; ++i) {
      if (json[i] == '\\' && i + 5 < json.size() && json[i + 1] == 'u') {
        out += static_cast<char>(std::stoi(json.substr(i + 2, 4), nullptr, 16));
        i += 5;
      } else {
        out += json[i] == '\\' ? json[++i] : json[i];
      }
    }
    ++i;
    return out;
  };
  while ((i = json.find('"', i)) != std::string::npos) {
    const std::string key = readString();
    i = json.find_first_not_of(": ", i);
    if (i == std::string::npos) break;
    if (json[i] == '"') {
      fields[key] = readString();
    } else if (json[i] == '[') {
      std::string& value = fields[key];
      for (++i; i < json.size() && json[i] != ']';) {
        if (json[i] == '"') {
          value += (value.empty() ? "" : ",") + readString();
        } else {
          ++i;
        }
      }
    }
  }
  return fields;
}

// Runs corvane-cli with `arguments` against the gateway on `port`.
inline GatewayAnswer AskGateway(int port, const std::string& arguments) {
  CommandOutput run = RunCommand(std::string("'") + CORVANE_CLI + "' --port " +
                                 std::to_string(port) + " --json " + arguments);
  return {run.status, run.output, ParseAnswerJson(run.output)};
}

// A shell word for a value that may hold blanks or quotes.
inline std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

inline size_t CountOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
    ++count;
  return count;
}

// The message file in `maildir` holding `marker`, once the MTA delivered it
// (within 15 s); empty when it did not come.
inline std::string DeliveredFile(const std::string& maildir, const std::string& marker) {
  for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
       std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
    for (const char* sub : {"/new", "/cur"}) {
      std::error_code error;
      for (const auto& entry : std::filesystem::directory_iterator(maildir + sub, error))
        if (ReadFile(entry.path()).find(marker) != std::string::npos) return entry.path();
    }
  }
  return {};
}

// A text no other test (or earlier run) uses.
inline std::string UniqueMarker(const std::string& what) {
  return what + " " + std::to_string(::getpid()) + "-" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

// A gateway on its own program directory, logging at debug level, and the
// private dovecot's mailboxes by role.
class GatewayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pop3_.ok()) << "no POP3 test server: " << pop3_.path();
    ASSERT_TRUE(gateway_.Start());
  }
  // The request fields naming `role`'s mailbox.
  std::string Mailbox(const std::string& role, unsigned port = 0, std::string password = "") const {
    const Pop3ServerEnv::Account account = pop3_.Mailbox(role);
    return " --req Pop3=127.0.0.1 --req Port=" +
           std::to_string(port ? port : pop3_.Port("POP3_PORT")) + " --req Login=" + account.user +
           " --req Pwd=" + (password.empty() ? account.password : password);
  }
  GatewayAnswer Ask(const std::string& arguments) const {
    return AskGateway(gateway_.port(), arguments);
  }
  GatewayAnswer Receive(const std::string& role, const std::string& id,
                        const std::string& extra = "") const {
    return Ask("--req Command=ReceiveMail" + Mailbox(role) + " --param ID=" + id + " " + extra);
  }
  // The gateway's cache directory of `role`'s mailbox.
  std::string Cache(const std::string& role) const {
    return gateway_.dir() /
           ("cache/" + pop3_.Mailbox(role).user + "@127.0.0.1:" + pop3_.Get("POP3_PORT") + "/");
  }
  // The POP3 id of the message in `role`'s maildir holding `marker`, once delivered.
  std::string DeliveredId(const std::string& role, const std::string& marker) const {
    const std::string name =
        std::filesystem::path(DeliveredFile(pop3_.Mailbox(role).maildir, marker)).filename();
    return name.substr(0, name.find(':'));
  }

  Pop3ServerEnv pop3_{CORVANE_POP3_ENV_FILE};
  GatewayProcess gateway_{"log_level=debug\n"};
};

}  // namespace corvane::test
