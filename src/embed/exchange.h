#pragma once
// One request that a program answers, on its way from the routed content to the pool's thread and
// back to the socket. Several may want to answer it (the handler, somebody later, the watch when
// its time is up): the first one does, by the claim; the others find it taken. Each has a head of
// its own to answer with, so that one that comes too late disturbs nobody.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "embed/handler_pool.h"
#include "embed/handlers.h"
#include "http/message_head.h"
#include "http/peer_watch.h"
#include "http/response_head.h"
#include "transceiver/answer_stream.h"
#include "velkoro/server.h"

class ZrTransceiverClient;

/// Made for a request that the pool is to run. The client lives as long as the exchange is open
/// there. Threads: what is not said to be for any belongs to whoever answers.
class [[gnu::visibility("hidden")]] velkoro::Exchange final
    : public ZrHandlerTask,
      public std::enable_shared_from_this<velkoro::Exchange> {
 public:
  Exchange(std::shared_ptr<ZrHandlers> handlers, ZrTransceiverClient & client,
           std::shared_ptr<ZrXHeader> request, ZrRouteTable::Match match);

  void Run() override;
  /// 503. Threads: any.
  void GiveUp() override;

  ZrXHeader& Asked() const { return *request_; }
  /// With the fields of a form in its body.
  ZrXHeader& AskedWithForm();
  const std::string& User() const { return request_->user; }
  void SetUser(std::string name) { request_->user = std::move(name); }
  std::string PathValue(std::string_view name) const;
  /// Whether nobody can be answered any more. Threads: any.
  bool Unreachable() const;
  /// The same, or the peer has ended its side: it may have closed, and is answered all the same.
  bool Gone() const;
  void OnGone(std::function<void()> action);

  /// The answer as it is made. Throws std::logic_error once it was sent.
  ZrXResponseHeader& Reply();
  const ZrXResponseHeader& Reply() const { return *reply_; }
  void SetBody(std::string bytes, std::string_view type);
  void SetFile(const std::string& path);
  void SetStatus(int status);
  /// Throws std::logic_error when it was deferred or sent before.
  void Defer();
  /// No: it was answered before.
  bool Send();
  /// Those who could have sent a deferred answer are gone: a 500 in its place, told as a failure
  /// where somebody waits for it.
  void Drop() noexcept;

  /// The answer piece by piece: the head, any number of pieces, and the end, once. Throws
  /// std::logic_error where that is no longer the handler's to begin but that of the Later.
  void CheckBegin(const velkoro::Answer& by) const;
  void BeginStream();
  bool WriteStream(std::string_view piece);
  void EndStream(bool whole) noexcept;
  /// What a path answers to a method that none of its routes has.
  static void AnswerForMethod(ZrTransceiverClient & client, const ZrXHeader& request,
                              ZrRouteTable::Methods allowed);
  const velkoro::Request& RequestPart() const { return asked_; }
  /// Of those who answer later.
  velkoro::Answer& LaterPart() { return later_; }

 private:
  struct Action;
  struct Room;

  bool Claim() noexcept { return !claimed_.exchange(true); }
  bool Passes(const ZrHandlers::Guard& guard);
  bool AskGuards();
  const velkoro::Server::Handler* FindHandler();
  void RunHandler();
  void Handle();
  void BeginBody();
  void LeaveToOthers();
  void Fail();
  template <class Act>
  void Conclude(Act act) noexcept;
  void Complete();
  void AnswerWith(int status, std::string_view sentence);
  void TellGone() ZR_EXCLUDES(goneLock_);
  void OnStop(std::function<void()> action) ZR_EXCLUDES(goneLock_);
  void LogFailure(const char* what);

  const std::shared_ptr<ZrHandlers> handlers_;
  ZrTransceiverClient& client_;
  const std::shared_ptr<ZrXHeader> request_;
  const ZrRouteTable::Match match_;
  bool formRead_ = false;

  std::shared_ptr<ZrXResponseHeader> reply_;
  bool statusSet_ = false;
  bool deferred_ = false;
  bool sent_ = false;
  bool streaming_ = false;
  velkoro::Request asked_;
  velkoro::Answer answer_;  // the handler's
  velkoro::Answer later_;   // the same, of those who answer later

  std::unique_ptr<ZrAnswerStream> stream_;
  std::shared_ptr<Room> room_;  // of the stream

  std::atomic<bool> claimed_{false};
  std::atomic<bool> givenUp_{false};
  ZrMutex goneLock_;  // never held while calling out
  std::shared_ptr<Action> onGone_ ZR_GUARDED_BY(goneLock_);
  std::function<void()> onStop_ ZR_GUARDED_BY(goneLock_);  // of a stream; waits for nothing
  ZrPeerSubscription peer_;                                // of the owner's thread
};
