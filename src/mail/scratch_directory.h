#pragma once

#include <string>

namespace corvane {

// A directory of one request's own, made inside `parent` ("/" at the end) as
// "attachments.XXXXXX" and removed with everything in it when the object
// goes. Attachments saved only to be sent on (forward, FTP upload) go here
// rather than beside the mailbox's cache files, which an attachment named
// "list.cache" or "<id>.txt" would otherwise replace.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::string& parent);
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  // The directory with "/" at the end; when it could not be made, a path
  // that does not exist, so that files saved there fail as written.
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
  bool made_ = false;
};

}  // namespace corvane
