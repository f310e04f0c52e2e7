#pragma once

#include <string>
#include <vector>

#include "accounts/account_registry.h"
#include "mail/list_cache.h"
#include "mail/mailbox_connection.h"
#include "mail/mailbox_session.h"
#include "mime/mail_message.h"
#include "transport/request_fields.h"
#include "transport/wx_entry_log.h"

namespace corvane {

// "ListMail": one row per message of a mailbox. Headers already seen come
// from the mailbox's list cache, so a repeated listing costs the id list and
// the headers of new messages. The dispatcher calls Open, then (when it
// gave 0) GatherItems, WriteRows and UpdateKnownUids; the connection is
// closed when the lister goes.
class MailLister {
 public:
  MailLister(RequestFields& request, const AccountRegistry& registry);
  ~MailLister();
  MailLister(const MailLister&) = delete;
  MailLister& operator=(const MailLister&) = delete;

  // Connects, logs in, takes the message count and the id list, and loads
  // the list cache. 0, 100 when a required field is missing, or the
  // connection's result code; the failure is answered here.
  int Open(wxEntryLog& answer);
  // One item per message whose header could be read (from the cache or by
  // TOP), subjects shortened to `subjectLength` bytes (0: not shortened); the
  // cache file is rewritten when anything was gathered.
  void GatherItems(int subjectLength);
  // Sorts newest first when asked to ("Desc") and writes the "Row%d" entries.
  void WriteRows(wxEntryLog& answer);
  // Brings the known-id list in step with what was seen on the server.
  void UpdateKnownUids();

 private:
  MailListItem BuildItem(const std::string& uid, const MailMessage& message, int subjectLength);

  const AccountRegistry& registry_;
  MailboxLogin mailbox_;
  std::string targetCharset_;
  std::string order_;
  std::string cacheDirectory_;
  std::string listCachePath_;
  std::unique_ptr<MailboxSession> session_;
  bool connected_ = false;
  std::vector<std::string> ids_;  // the server's, in its order
  std::vector<MailListItem> items_;
  std::vector<std::string> serverUids_;
  ListCache cache_;
};

}  // namespace corvane
