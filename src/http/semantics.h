#pragma once
// The rules by which a server reads requests and writes answers. There are two sets: "minimal" is
// the system's own dialect (GET and POST, one head with "Server" and "Content-Length"); "standard"
// is what browsers, proxies and tools expect (RFC 9110 and 9112). A server has one of them for its
// life, by the option "semantics" of its configuration head; every message it reads carries it, and
// the answer made from a request has its request's. Whoever answers asks the message what differs
// and knows no dialect by name.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "http/fwd.h"

class ZrStringBuf;

/// The methods of requests. A message of minimal semantics has one of the first two.
enum class ZrMethod : std::uint8_t { kGet, kPost, kHead, kPut, kPatch, kDelete, kOptions };

/// How far a message has arrived, and what its server does next.
enum class ZrReadStep {
  kHead,      ///< The head is incomplete: read again when more has arrived.
  kBody,      ///< The head is there, the body incomplete: read again when more has arrived.
  kContinue,  ///< As kBody, and the peer waits for an interim answer before it sends the body.
  kComplete,  ///< Hand it out. With a `refusal`, it is to be answered with that status only.
  kClose,     ///< It means nothing here: close the connection without an answer.
};

/// Stateless; the state of a message is in its head. Threads: any, also while the process exits:
/// the two objects are never destroyed.
class ZrSemantics {
 public:
  using HeadCallback = std::function<bool(ZrXHeader&)>;

  static const ZrSemantics& Minimal();
  static const ZrSemantics& Standard();
  /// The set of that name, "" is "minimal". Throws ZrException for any other name.
  static const ZrSemantics& Named(std::string_view name);

  /// Reads on in what has arrived in the message's Input(). The callback is called once, when the
  /// head is complete and not refused; if it answers no the message means nothing here. What
  /// belongs to the next message is afterwards in `surplus`. Cost is linear in the bytes however
  /// they are cut. Throws std::bad_alloc.
  virtual ZrReadStep Read(ZrXHeader& message, const HeadCallback& onHead) const = 0;

  /// Writes the head of an answer; called by ZrXHeader::WriteHead() under its lock.
  virtual void WriteAnswerHead(ZrXHeader& answer, ZrStringBuf& out) const = 0;
  /// The reason phrase of a status, empty for one that is never written.
  virtual std::string_view StatusPhrase(std::uint64_t status) const = 0;
  /// Whether the answer's body goes out behind its head (not for HEAD, for instance), at once or in
  /// pieces.
  virtual bool SendsBody(const ZrXHeader& answer) const = 0;
  /// What is said to a peer whose message did not come in time, a whole answer; empty: nothing.
  virtual std::string LateAnswer() const = 0;
  /// Whether answers may have fields, statuses and bodies beyond those of the minimal dialect.
  virtual bool IsStandard() const = 0;

 protected:
  constexpr ZrSemantics() = default;
  ~ZrSemantics() = default;
};
