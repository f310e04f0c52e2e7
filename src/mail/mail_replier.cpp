#include "mail/mail_replier.h"

#include "mail/address_list.h"
#include "mail/quoted_original.h"

namespace corvane {
namespace {

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

MailReplier::MailReplier(RequestFields& request) : sender_(request) {
  replyAll_ = request.Parameter("Replies") == "all";
  quote_ = request.Parameter("Quote") == "true";
}

void MailReplier::Merge(const RenderedMail& original) {
  OutgoingMail& mail = sender_.Mail();
  const std::string login = mail.login.value_or("");
  // A reply always comes from the mailbox it was read from.
  mail.from = mail.login;
  mail.to = original.from;
  if (replyAll_ && original.from) {
    if (original.to) {
      // The login's own address is not written back to.
      std::string others = *original.to;
      if (Contains(others, login)) {
        others = Contains(others, ",") ? ExtractAddresses(others, login) : std::string();
      }
      mail.to = JoinList(others, *original.from);
    }
    if (original.cc) {
      if (!Contains(*original.cc, login)) {
        mail.cc = original.cc;
      } else if (Contains(*original.cc, ",")) {
        mail.cc = ExtractAddresses(*original.cc, login);
      } else {
        mail.cc.reset();
      }
    }
  }
  if (!mail.subject) mail.subject = "Reply: " + original.subject.value_or("");
  if (quote_) QuoteOriginal(mail.body, original);
}

}  // namespace corvane
