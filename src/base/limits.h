#pragma once

#include <cstddef>

// Every bound the gateway keeps on what a client or a mail server sends, in
// one place. Mail servers, clients and messages are outside input: none of
// them may grow memory or time without an end. The limits are far above what
// real mail needs; what goes past one is cut or refused where it is read.
namespace corvane::limits {

// Messages a mailbox may hold for the gateway: a larger STAT count is read
// as this many, and a UIDL listing keeps no more ids than the STAT count.
inline constexpr int kMaxMessages = 100000;

// Bytes of one message's header kept from TOP (the rest is read and dropped).
inline constexpr size_t kMaxHeaderBytes = 256 * 1024;
// Fields of one message's header; later ones are dropped when it is parsed.
inline constexpr size_t kMaxHeaderFields = 1000;
// Bytes of one header field, its continuation lines included.
inline constexpr size_t kMaxFieldBytes = 64 * 1024;
// Attachments kept of one message (parts and uuencoded files together), and
// lines starting with "--" read of it: each such line may open a MIME part,
// and the library builds every part, some kilobytes each, before any is
// looked at. Past them the message is read as if cut short there.
inline constexpr size_t kMaxAttachments = 1000;
inline constexpr size_t kMaxBoundaryLines = 10000;
// Header fields and their bytes kept of one message, in its own header, its
// parts' and its embedded messages' together: the library builds every
// header before any is looked at, some hundreds of bytes for each field and
// each parameter however short. Past them the message is read as if cut
// short there. Mail with a thousand attachments and a full own header stays
// below them.
inline constexpr size_t kMaxMessageHeaderFields = 10000;
inline constexpr size_t kMaxMessageHeaderBytes = 1024 * 1024;
// Bytes of a listing row's sender and of its subject before they are cut
// (with "..." added): a listing holds up to kMaxMessages rows.
inline constexpr int kMaxListFieldBytes = 512;

// Bytes of one client connection queued between the network and the work
// thread, each way. A client that sends faster than its requests are served
// is not read from until there is room again (its TCP window fills), and
// answers wait for room while a client does not read them: back-pressure,
// not a growing queue. A request (at most 20480 bytes) always fits, and one
// answer of any size is always queued.
inline constexpr size_t kMaxQueuedRequestBytes = 64 * 1024;
inline constexpr size_t kMaxQueuedAnswerBytes = 1024 * 1024;

// Lines of one multi-line SMTP or FTP reply; a server that goes on past
// them is a failed reply.
inline constexpr int kMaxReplyLines = 1000;
// Bytes of one reply line a client reads (and drops past its room) before it
// takes the line for no reply: a server that never ends a line gets no more
// of our time than that.
inline constexpr size_t kMaxReplyLineBytes = 64 * 1024;

// One IMAP response as the client reads it: its nesting of parenthesized
// lists, its items (atoms, strings, literals, lists), and the bytes it may
// hold in memory, its lines and kept literals together. A literal longer
// than kMaxHeaderBytes keeps that much; one announced past kMaxImapLiteralBytes
// that is not streamed to a destination ends the response, unread.
inline constexpr int kMaxImapDepth = 16;
inline constexpr size_t kMaxImapItems = 10000;
inline constexpr size_t kMaxImapResponseBytes = 1024 * 1024;
inline constexpr size_t kMaxImapLiteralBytes = 16 * 1024 * 1024;
// Untagged IMAP responses one command may draw before its tagged reply: a
// FETCH of a whole mailbox answers once per message, and the server may add
// news of its own; a server that goes on past them fails the command.
inline constexpr int kMaxImapUntagged = 2 * kMaxMessages + kMaxReplyLines;

// Accounts ConfigMail may register, and bytes of each of an account's texts
// (server, login, password, mobile): every account is held in memory, written
// into account.dat on each change and checked on each pass.
inline constexpr size_t kMaxAccounts = 10000;
inline constexpr size_t kMaxAccountFieldBytes = 255;
// IMAP accounts watched in IDLE, each a thread and a connection of its own;
// those past it are checked by the passes.
inline constexpr size_t kMaxImapWatches = 1000;

// Notification programs running at once; a further new-mail notice waits
// for one of them to end.
inline constexpr size_t kMaxNotifyPrograms = 32;

// Accounts the new-mail check polls at once ([Pushmail] Workers is held to
// it): each is a thread and a connection.
inline constexpr int kMaxCheckWorkers = 256;

}  // namespace corvane::limits
