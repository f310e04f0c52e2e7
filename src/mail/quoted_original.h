#pragma once

#include <optional>
#include <string>

#include "mail/mail_receiver.h"

namespace corvane {

// The four GB2312 lines that introduce a quoted message (its sender, sent
// time, recipients and subject), whatever the charset of the mail around
// them.
std::string QuotationHeader(const RenderedMail& original);

// The body of a reply or forward that quotes `original`: the writer's own
// `body` (when given), the quotation header and the original body. Nothing
// changes when the original has no body.
void QuoteOriginal(std::optional<std::string>& body, const RenderedMail& original);

}  // namespace corvane
