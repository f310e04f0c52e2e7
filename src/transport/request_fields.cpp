#include "transport/request_fields.h"

namespace corvane {
namespace {

// The query with the request replayed into it, ready for lookups.
wxQuery& Parsed(wxQuery& query, const char* bytes, size_t length) {
  query.AddRecordSet();
  query.Parse(bytes, length);
  return query;
}

}  // namespace

RequestFields::RequestFields(const char* bytes, size_t length)
    : request_(query_, Parsed(query_, bytes, length).FindNode("sysREQUEST")),
      parameter_(query_, query_.FindNode("sysPARAMETER")) {}

}  // namespace corvane
