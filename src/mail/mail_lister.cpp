#include "mail/mail_lister.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "base/process_log.h"
#include "base/program_paths.h"
#include "mail/header_display.h"
#include "mail/known_uids.h"
#include "mail/mail_date.h"
#include "mail/text_shortening.h"
#include "mime/mail_message.h"
#include "protocol/net_error.h"
#include "transport/counted_string.h"
#include "transport/response_entries.h"

namespace corvane {
namespace {

constexpr int kMissingField = 100;
constexpr char kMissingFieldText[] = "The parameter of request is not enough";

}  // namespace

MailLister::MailLister(RequestFields& request, const AccountRegistry& registry)
    : registry_(registry), mailbox_(MailboxLogin::FromRequest(request)) {
  targetCharset_ = request.Parameter("Encode").value_or("gb2312");
  // Only a second value of "Order" counts: a single "Desc" keeps server order.
  order_ = request.ParameterAt("Order", 2).value_or("Asc");
  if (mailbox_.Complete()) {
    cacheDirectory_ = mailbox_.CacheDirectory(registry_.ProgramDirectory());
    listCachePath_ = cacheDirectory_ + "list.cache";
  }
}

MailLister::~MailLister() {
  if (connected_) client_.POP3Close();
}

int MailLister::Open(wxEntryLog& answer) {
  if (!mailbox_.Complete()) {
    WriteFailure(answer, kMissingFieldText);
    WriteLog(kLogError, "%s\n", kMissingFieldText);
    return kMissingField;
  }
  int result = OpenMailbox(client_, mailbox_);
  if (result != 0) {
    WriteFailure(answer, "Connect pop3 server error");
    WriteLog(kLogError, "%s connect pop3 server error: %s\n", mailbox_.login->c_str(),
             CNetError::GetErrorString(result));
    return result;
  }
  connected_ = true;
  // Only a mailbox that let us in gets a cache directory.
  EnsureDirectory(cacheDirectory_);
  client_.GetNumMsgs(&count_);
  WriteSuccess(answer);
  if (count_ < 1) {
    std::remove(listCachePath_.c_str());
    count_ = 0;
    return 0;
  }
  WriteLog(kLogDebug, "You have %d mails in mailbox\n", count_);
  items_.reserve(static_cast<size_t>(count_));
  client_.GetUIDL(0);
  WriteParameterRecord(answer);
  if (access(listCachePath_.c_str(), F_OK) == 0) {
    WriteLog(kLogDebug, "Load mail list cache in %s\n", listCachePath_.c_str());
    cache_ = ReadListCache(listCachePath_);
  }
  return 0;
}

void MailLister::GatherItems(int subjectLength) {
  // Headers not in the cache: a server that takes pipelined commands gets
  // their TOPs ahead of the replies, one round trip for many instead of
  // one each. Asked only when there are several, so that a warm listing
  // keeps its session as it was.
  std::vector<int> uncached;
  for (int number = 1; number <= count_; ++number) {
    const char* uid = client_.GetUID(number);
    if (uid != nullptr && !cache_.Find(uid)) uncached.push_back(number);
  }
  if (uncached.size() > 1 && client_.AskPipelining()) client_.SendTopsAhead(uncached, 0);
  for (int number = 1; number <= count_; ++number) {
    const char* uidText = client_.GetUID(number);
    // A message the id list does not name cannot be asked for later.
    if (uidText == nullptr) continue;
    std::string uid = uidText;
    if (const MailListItem* cached = cache_.Find(uid)) {
      WriteLog(kLogDebug, "Get list item %d/%d from cache UID: %s\n", number, count_, uid.c_str());
      serverUids_.push_back(uid);
      items_.push_back(*cached);
      continue;
    }
    std::optional<MailMessage> message;
    int result = ReadMessageHeader(client_, number, message);
    if (result != 0) {
      WriteLog(kLogError, "%s Load pop3 message error: %s\n", mailbox_.login->c_str(),
               CNetError::GetErrorString(result));
    } else if (message) {
      BuildItem(number, uid, *message, subjectLength);
    }
  }
  if (!items_.empty()) WriteListCache(listCachePath_, items_);
}

void MailLister::BuildItem(int number, const std::string& uid, const MailMessage& message,
                           int subjectLength) {
  WriteLog(kLogDebug, "Get mail %d/%d UID: %s\n", number, count_, uid.c_str());
  serverUids_.push_back(uid);
  std::string from = DisplayHeaderOf(message, kFieldFrom, targetCharset_).value_or("");
  std::string subject = DisplayHeaderOf(message, kFieldSubject, targetCharset_).value_or("");
  if (subjectLength > 0) ShortenText(subject, subjectLength);
  int32_t time = ParseMailDate(message.JoinedHeaderValues(kFieldDate));
  std::optional<std::string> contentType = message.JoinedHeaderValues(kFieldContentType);
  bool mixed = contentType && contentType->find("multipart/mixed;") != std::string::npos;

  MailListItem item;
  item.time = time;
  item.uid = uid;
  CountedString::AppendTo(item.row, uid);
  CountedString::AppendTo(item.row, from);
  CountedString::AppendTo(item.row, subject);
  CountedString::AppendTo(item.row, FormatLocalMinute(time));
  CountedString::AppendTo(item.row, mixed ? "1" : "0");
  items_.push_back(std::move(item));
}

void MailLister::WriteRows(wxEntryLog& answer) {
  if (order_ == "Desc") {
    std::sort(items_.begin(), items_.end(),
              [](const MailListItem& a, const MailListItem& b) { return a.time > b.time; });
  }
  for (size_t k = 0; k < items_.size(); ++k) {
    answer.AddEntryText(kEntryField, "Row" + std::to_string(k), items_[k].row);
  }
}

void MailLister::UpdateKnownUids() {
  SyncKnownUids(registry_, mailbox_.Key(), cacheDirectory_, serverUids_);
}

}  // namespace corvane
