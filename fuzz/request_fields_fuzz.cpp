// A decoded request replayed into the record container, then every look-up
// the dispatcher and the mail commands make on it: the command and the
// mailbox's credentials from "sysREQUEST", the arguments and multi-valued
// arguments from "sysPARAMETER". Field values that are path expressions are
// followed as the container does. Every value reads as zero-terminated
// text: the commands hand them on as C strings.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "transport/request_fields.h"
#include "transport/wx_query.h"

namespace {

constexpr const char* kRequestNames[] = {"Command", "Pop3",     "Port", "Login",  "Pwd",
                                         "Smtp",    "SmtpPort", "Auth", "Mobile", "sysREQUEST"};
constexpr const char* kParameterNames[] = {
    "Attachment", "Body", "Cc",       "Config", "Encode",      "From",
    "ID",         "Name", "Polling",  "Quote",  "Receipt",     "Replies",
    "Subject",    "To",   "Priority", "Order",  "Attachments", "sysPARAMETER"};

void CheckText(const std::optional<std::string>& value) {
  if (!value || value->find('\0') == std::string::npos) return;
  std::fprintf(stderr, "request_fields_fuzz: a value holds a zero byte\n");
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  corvane::RequestFields request(bytes, size);
  for (const char* name : kRequestNames) CheckText(request.Request(name));
  for (const char* name : kParameterNames) {
    CheckText(request.Parameter(name));
    for (int index = -1; index <= 3; ++index) CheckText(request.ParameterAt(name, index));
  }
  // The same bytes through the container's own cursor methods.
  corvane::wxQuery query;
  query.AddRecordSet();
  query.Parse(bytes, size);
  for (const char* root : {"sysREQUEST", "sysPARAMETER"}) {
    corvane::wxNodeRef node(query, query.FindNode(root));
    if (!node) continue;
    for (const char* expression :
         {"sysREQUEST.Command", "sysPARAMETER.Order[2]", "sysREQUEST.Count()",
          "sysPARAMETER.First()", "sysPARAMETER.Next()", "sysPARAMETER.Field(1)"}) {
      CheckText(node.Evaluate(expression));
    }
    node.ValueCount("Attachments");
    node.GetBinary("Body");
  }
  query.Serialize();
  return 0;
}
