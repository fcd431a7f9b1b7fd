#pragma once
// The head of a message: the one object that carries a request or an answer through the system. A
// protocol server makes one per message of a connection, moves received bytes into its body and
// runs the incremental reader until the message is complete; the request handler makes the answer
// from it; the server writes that answer's head and sends its body. The reader is in
// message_head_read.cpp, the writer in message_head_write.cpp.
//
// Threads: one at a time works on a head. What several threads ask of it is atomic or under
// headLock.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/memory_budget.h"
#include "base/option_map.h"
#include "base/server_callback.h"
#include "base/shared_text.h"
#include "base/string_buffer.h"
#include "base/workbench.h"
#include "http/fwd.h"
#include "http/header_fields.h"
#include "http/message_block.h"
#include "http/message_reading.h"
#include "http/message_route.h"
#include "http/protocol_kind.h"
#include "http/semantics.h"
#include "jobs/job.h"
#include "jobs/task_guest.h"
#include "platform/sync.h"

/// The type of a message, by the first word of its first line.
enum class ZrMessageType : std::uint32_t {
  kNone = 0,    ///< "NONE"; such a message is never written.
  kGet = 1,     ///< "GET"
  kPost = 2,    ///< "POST"; also what every incoming head has before its first line.
  kAnswer = 3,  ///< "ANSWER"; every answer made here.
};

/// What the first line of a received message says it is.
enum class ZrMessageKind : std::uint32_t {
  /// Neither of the two: the head ends at once, the connection is to be closed.
  kUnrecognised = 0,
  kResponse = 1,  ///< It begins with a version.
  kRequest = 2,   ///< It begins with the name of a message type.
};

/// How far a message has arrived.
enum class ZrReadResult : int {
  kIncomplete = 0,  ///< Bytes are missing: read again when more have arrived.
  kRejected = 1,    ///< Refused, beyond a limit or longer than declared: close the connection.
  kComplete = 2,    ///< The head and the declared body are there.
};

namespace zr {

/// Limits of a received message; ReadHead() rejects what goes past one of them.
inline constexpr std::size_t kMaxHeadBytes = std::size_t{64} * 1024;  // the empty line included
inline constexpr std::size_t kMaxHeadLines = 200;                     // the first line included
inline constexpr std::uint64_t kMaxBodyBytes = 256ull * 1024 * 1024;

/// The job state in which a message is complete and its head may be written.
inline constexpr std::uint32_t kHeadStateComplete = 6;

/// The name under which `headers` keeps the words of the first line.
inline constexpr std::string_view kFirstLine = ":first:";

/// How the server names itself in the heads that it writes.
inline constexpr std::string_view kServerProduct = "velkoro/1.28.1(96)";

/// The host as connecting and certificates name it: an IPv6 address without its brackets.
std::string BareHost(std::string_view host);

}  // namespace zr

/// A message with its fields, target, body and status. Held in shared ownership (zr::MakeJob).
class ZrXHeader : public ZrJob, public ZrOnWorkbench {
 public:
  /// The protocol kind is one of protocol_kind.h. Servers construct incoming heads as kPost; the
  /// first line then tells the type.
  ZrXHeader(ZrMessageType type, std::uint32_t protocolKind);
  /// The same with the time at which the exchange began, in 100-ns ticks since 1970.
  ZrXHeader(ZrMessageType type, std::uint32_t protocolKind, std::int64_t createdTicks);
  ~ZrXHeader() override;

  /// Writes the head of a request or an answer into the buffer, under headLock. Answers no, and
  /// writes nothing, in any job state but 6 and for a message of type kNone. For an answer whose
  /// body begins with the head of a program, that head is moved out of `body`.
  virtual bool WriteHead(ZrStringBuf& out) ZR_EXCLUDES(headLock);
  /// Whether the job state is 5 or 6, no head was written and there is a status of at least 100.
  virtual bool IsReadyToSend() ZR_EXCLUDES(headLock);
  virtual std::uint32_t ProtocolKind() const { return protocol; }

  /// The same head as text of a stream.
  bool WriteHead(std::ostream& out) ZR_EXCLUDES(headLock);

  /// Consumes the head from the front of `body` as far as it has arrived; afterwards `body` holds
  /// the message's body. Call it each time bytes were appended; the cost is linear in the bytes
  /// however they are cut. `callback` is called once, when the empty line was read; if it answers
  /// no the message is rejected at once. An exception of the callback passes through.
  ZrReadResult ReadHead(const std::function<bool(ZrXHeader&)>& callback);
  /// How the bytes in `body` compare with the declared length: fewer, more or as many.
  ZrReadResult BodyState() const;
  /// Where received bytes are to be appended.
  ZrStringBuf& Input() { return reading.input ? *reading.input : *body; }
  /// Puts what `body` holds where the rest of a body of that many bytes (as far as known) will go:
  /// nowhere when it is unwanted, to a file when it is large. No: the file took it not.
  [[nodiscard]] bool KeepBody(std::uint64_t expected);
  /// The body is complete: `body` gives it, wherever it lies. No: the system refused that.
  [[nodiscard]] bool FinishBody();
  /// Moves what `body` holds to the end of the target, of a body that flows. Returns its bytes.
  std::size_t TakeArrivedBody(ZrStringBuf& to);
  /// A message that reads on where this one is: to be the reader of its body.
  std::shared_ptr<ZrXHeader> MakeBodyReader();
  /// Bytes of the body that have come so far, wherever they lie.
  std::uint64_t BodyBytes() const { return reading.elsewhere + (body ? body->Size() : 0); }

  /// The answer to this request: kind, time, path, route (reversed), ends, request fields and
  /// summary are taken over, the status is 500. The fields are shared, not copied.
  std::shared_ptr<ZrXResponseHeader> MakeResponse() const;

  /// Sets the status if it has a reason phrase; otherwise nothing changes.
  void SetStatus(std::uint64_t code);
  /// Appends to the body, sets status 200 and job state 6.
  void SetBodyText(std::string_view text);
  /// The body is that file of `length` bytes, to be read when it is sent.
  void SetFileBody(std::string path, std::uint64_t length);
  /// The same of a file that is open: status and bytes come from this one descriptor.
  void SetFileBody(std::shared_ptr<const ZrFile> file, std::uint64_t length);
  bool HasFileBody() const { return bodyFile || !filePath.empty(); }
  /// The body is these bytes and no file any more.
  void SetBytesBody(std::shared_ptr<const std::string> bytes);
  /// Hands over the body, an empty buffer when there is none.
  std::unique_ptr<ZrStringBuf> TakeBody();
  /// Sets "time_used" (microseconds since `created`, six decimals) and "status_code".
  void FillAccessFields(ZrOptionMap& fields) const;

  /// The values of a field (lower-case name) of the request that this answer belongs to.
  ZrHeaderFields::Values RequestField(std::string_view name) const { return requestHeaders[name]; }
  /// "http", "https", "quarn", "quarns", "socket", or "unknown".
  std::string_view SchemeName() const;
  /// Keeps the record of the connection that the message came in on. The second form shares it, for
  /// a connection that serves many messages; it must not be changed any more.
  void SetPeerRecord(const ZrServerCallback_t& record);
  void SetPeerRecord(std::shared_ptr<const ZrServerCallback_t> record);
  const ZrServerCallback_t& PeerRecord() const;
  /// The address of an outgoing request, scheme://user@host:port; empty without a host.
  std::string TargetUrl() const;
  /// Whether a server with this configuration head takes a peer: its "type" must name a protocol.
  bool AcceptsPeer(const ZrOptionMap& peer) const;

  /// Gives the answer a field of that name, in the place of earlier ones or beside them. No, and
  /// nothing set, when the name is no token or the value has CR, LF or NUL. Standard semantics
  /// write them; what says how the answer ends and who sent it is the server's own in any case.
  bool SetField(std::string_view name, std::string_view value);
  bool AddField(std::string_view name, std::string_view value);
  /// Makes ready lines fields like others, which can be replaced.
  void UnfoldReadyFields();

  /// Adds a form field at the end of `blocks` and enters it into `byPosition`.
  ZrHTTPMessageBlock& AddBlock();

  /// Whether a head was written.
  bool HeadWritten() const ZR_EXCLUDES(headLock);
  /// Answers no once the head of a received message has ended.
  bool InHead() const { return reading.inHead; }
  /// The number of head lines read, the first one included and the empty one not.
  std::size_t LineCount() const { return reading.lineCount; }

  // Who sent what.
  const ZrSemantics* semantics = &ZrSemantics::Minimal();
  const std::uint32_t protocol;
  std::atomic<ZrMessageType> messageType;
  std::atomic<ZrMessageKind> kind{ZrMessageKind::kUnrecognised};
  std::string version = "1.1";
  ZrHeaderFields headers;         // a received head; the words of its first line under ":first:"
  ZrHeaderFields requestHeaders;  // answers: the fields of the request
  std::string requestSummary = "-";
  std::string path;   // the target before the first "?"
  std::string query;  // GET (minimal), any method (standard): the target after it
  ZrMethod method = ZrMethod::kGet;
  std::string authority;    // standard: the host and port that the request is for
  int localRedirects = 0;   // standard: programs that named another page so far
  bool oldVersion = false;  // standard: HTTP/1.0
  bool keepsOld = false;    // ... that may keep its connection
  std::uint64_t refusal =
      0;  // standard: not 0: it is answered with this status, whatever it asks for
  const std::int64_t created;  // system time in 100-ns ticks since 1970

  // The body. Received: the input buffer, the body once the head is read. To send: the bytes, or
  // `contentLength` with `filePath` or with the file, when it is open already.
  std::unique_ptr<ZrStringBuf> body;
  std::uint64_t contentLength = 0;   // to send: the length last written
  std::uint64_t headBytes = 0;       // ... and that of the head
  std::uint64_t declaredLength = 0;  // received: the "content-length" field
  std::string filePath;
  std::shared_ptr<const ZrFile> bodyFile;
  std::uint64_t fileOffset = 0;                  // of the body's first byte in the file
  std::shared_ptr<const std::string> fileBytes;  // the whole file, where it is in memory already
  bool cgiHeadPending = false;                   // `body` begins with the head lines of a program
  bool closeRequested = false;                   // the "connection" field asks for "close"
  bool endUncertain = false;  // nothing behind this message may be read as another one
  // Set when the head is complete: nobody can take the body / its reader takes it as it comes.
  bool bodyUnwanted = false;
  bool bodyFlows = false;
  std::shared_ptr<ZrBodyInlet> inlet;  // ... from here; also of the answer
  bool restOnly = false;  // received: its answer was given, only the rest of its body is read
  ZrMemoryShare memory;   // what the body occupies on the heap
  std::unique_ptr<ZrStringBuf> surplus;  // received: what belongs to the next message; may be none

  // The answer.
  std::uint64_t status = 500;
  std::string location;      // for status 303
  bool streamed = false;     // standard: the body comes behind the head, in pieces
  bool lengthKnown = false;  // ... which have `contentLength` bytes together
  std::shared_ptr<const ZrHeaderFields> addedFields;  // standard: the site's; may be none
  // standard: lines of the head that are ready, of a file, of which so many bytes count
  std::shared_ptr<const std::string> readyFields;
  std::size_t readyBytes = 0;
  bool answered = false;  // an answer to one of our own requests was accepted

  // Form fields; the indexes point into the blocks.
  std::vector<std::unique_ptr<ZrHTTPMessageBlock>> blocks;
  ZrHTTPMessageBlockDisposition byPosition;   // "0", "1", ...
  ZrHTTPMessageBlockDisposition allFields;    // by name
  ZrHTTPMessageBlockDisposition queryFields;  // by name, the fields of the target's query
  ZrHTTPMessageBlockDisposition bodyFields;   // by name, the fields known when the body was parsed

  ZrMessageReading reading;

  // The way through the system.
  std::shared_ptr<ZrPeerWatch> peerWatch;  // of a received request: can it still be answered?
  ZrMessageRoute route;                    // connection name, server name; reversed in an answer
  ZrSharedText target;                     // the joined task that the message belongs to
  ZrTaskGuest presence;                    // there, when it is no member
  // Of a received message and of the answer to it: where both ends are.
  std::shared_ptr<const ZrMessageEnds> ends;

  std::string user;  // of a received request: whom this server knows it to be from

  // Outgoing requests.
  std::string host;
  std::string userInfo;
  std::uint64_t port = 0;
  std::string boundary;
  /// How the connection is made; requests share one only when they agree on all of these.
  /// "cacertificate": the peer's certificate and host name are verified against that PEM file, or
  /// the system's store when it is empty; without the entry nobody is verified. "timeout": the
  /// limit for connecting with the TLS handshake, in milliseconds. "quiet": failures are not
  /// written to standard error, as the sender reports them.
  ZrOptionMap connectOptions;

  /// Guards head writing and the options of a configuration head; taken after the job's own lock.
  mutable ZrMutex headLock;

 private:
  void WriteRequestHead(ZrStringBuf& out);
  void WriteStandardRequestHead(ZrStringBuf& out);
  bool ParseHeadLine(std::string_view line);
  bool ParseFirstLine(std::string_view line);
  void ParseFieldLine(std::string_view line);
  void ParseTarget(std::string_view text);
  bool FinishHead();

  bool headWritten_ ZR_GUARDED_BY(headLock) = false;
  std::shared_ptr<const ZrServerCallback_t> peerRecord_;  // none before SetPeerRecord()
};
