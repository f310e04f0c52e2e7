#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "transport/wx_node_ref.h"
#include "transport/wx_query.h"

namespace corvane {

// One parsed request: the "sysREQUEST" record (command and mailbox
// credentials) and the "sysPARAMETER" record (the command's arguments).
class RequestFields {
 public:
  RequestFields(const char* bytes, size_t length);
  RequestFields(const RequestFields&) = delete;
  RequestFields& operator=(const RequestFields&) = delete;

  std::optional<std::string> Request(std::string_view name) { return ValueOf(request_, name); }
  std::optional<std::string> Parameter(std::string_view name) { return ValueOf(parameter_, name); }
  // The index-th value (from 1) of a multi-valued parameter.
  std::optional<std::string> ParameterAt(std::string_view name, int index) {
    return parameter_ ? parameter_.GetValueAt(name, index) : std::nullopt;
  }

 private:
  static std::optional<std::string> ValueOf(wxNodeRef& node, std::string_view name) {
    return node ? node.GetValue(name) : std::nullopt;
  }

  wxQuery query_;
  wxNodeRef request_;
  wxNodeRef parameter_;
};

}  // namespace corvane
