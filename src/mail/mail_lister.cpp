#include "mail/mail_lister.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <unordered_map>

#include "base/ascii_text.h"
#include "base/limits.h"
#include "base/process_log.h"
#include "base/program_paths.h"
#include "mail/header_display.h"
#include "mail/header_read_failures.h"
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
    : registry_(registry),
      mailbox_(MailboxLogin::FromRequest(request)),
      session_(MailboxSession::For(mailbox_)) {
  targetCharset_ = request.Parameter("Encode").value_or("gb2312");
  // Only a second value of "Order" counts: a single "Desc" keeps server order.
  order_ = request.ParameterAt("Order", 2).value_or("Asc");
  if (mailbox_.Complete()) {
    cacheDirectory_ = mailbox_.CacheDirectory(registry_.ProgramDirectory());
    listCachePath_ = cacheDirectory_ + "list.cache";
  }
}

MailLister::~MailLister() {
  if (connected_) session_->Close();
}

int MailLister::Open(wxEntryLog& answer) {
  if (!mailbox_.Complete()) {
    WriteFailure(answer, kMissingFieldText);
    WriteLog(kLogError, "%s\n", kMissingFieldText);
    return kMissingField;
  }
  int result = session_->Open(mailbox_);
  if (result != 0) {
    WriteFailure(answer, "Connect pop3 server error");
    WriteLog(kLogError, "%s connect pop3 server error: %s\n", mailbox_.login->c_str(),
             CNetError::GetErrorString(result));
    return result;
  }
  connected_ = true;
  // Only a mailbox that let us in gets a cache directory.
  EnsureDirectory(cacheDirectory_);
  // An empty mailbox has no list cache; one whose ids did not come keeps it.
  const int listed = session_->ListIds(ids_);
  WriteSuccess(answer);
  if (ids_.empty() && listed == 0) {
    std::remove(listCachePath_.c_str());
    return 0;
  }
  WriteLog(kLogDebug, "You have %zu mails in mailbox\n", ids_.size());
  items_.reserve(ids_.size());
  WriteParameterRecord(answer);
  if (access(listCachePath_.c_str(), F_OK) == 0) {
    WriteLog(kLogDebug, "Load mail list cache in %s\n", listCachePath_.c_str());
    cache_ = ReadListCache(listCachePath_);
  }
  return 0;
}

void MailLister::GatherItems(int subjectLength) {
  // The cache by id, the first row of an id counting: a look-up for each of
  // up to limits::kMaxMessages ids must not walk the whole cache.
  std::unordered_map<std::string_view, const MailListItem*> cached;
  for (const MailListItem& item : cache_.items) {
    if (!item.uid.empty()) cached.emplace(item.uid, &item);
  }
  std::vector<std::string> uncached;
  for (const std::string& uid : ids_) {
    if (!cached.count(uid)) uncached.push_back(uid);
  }
  std::unordered_map<std::string, MailListItem> fetched;
  HeaderReadFailures failures(*mailbox_.login);
  session_->ReadHeaders(
      uncached, [&](const std::string& uid, int result, std::optional<MailMessage>& message) {
        if (result != 0) {
          failures.Add(result);
        } else if (message) {
          fetched.emplace(uid, BuildItem(uid, *message, subjectLength));
        }
      });
  // In server order; a header that could not be read is left out and
  // counts as gone.
  for (size_t k = 0; k < ids_.size(); ++k) {
    const std::string& uid = ids_[k];
    auto hit = cached.find(uid);
    const MailListItem* item = hit != cached.end() ? hit->second : nullptr;
    if (item) {
      WriteLog(kLogDebug, "Get list item %zu/%zu from cache UID: %s\n", k + 1, ids_.size(),
               uid.c_str());
    } else if (auto found = fetched.find(uid); found != fetched.end()) {
      WriteLog(kLogDebug, "Get mail %zu/%zu UID: %s\n", k + 1, ids_.size(), uid.c_str());
      item = &found->second;
    }
    if (!item) continue;
    serverUids_.push_back(uid);
    items_.push_back(*item);
  }
  if (!items_.empty()) WriteListCache(listCachePath_, items_);
}

MailListItem MailLister::BuildItem(const std::string& uid, const MailMessage& message,
                                   int subjectLength) {
  std::string from = DisplayHeaderOf(message, kFieldFrom, targetCharset_).value_or("");
  std::string subject = DisplayHeaderOf(message, kFieldSubject, targetCharset_).value_or("");
  const bool utf8 = SameText(targetCharset_, "utf-8");
  const int limit = limits::kMaxListFieldBytes;
  ShortenText(from, limit, utf8);
  ShortenText(subject, subjectLength > 0 ? std::min(subjectLength, limit) : limit, utf8);
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
  return item;
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
