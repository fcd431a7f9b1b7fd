#pragma once
// What a request handler does with a request that no form command answered. The content handlers
// stand in a layer above and are plugged in here.

#include <memory>

#include "transceiver/fwd.h"

class ZrTransceiverClient;

/// Called on the servers' threads, several at once, with no lock held.
class ZrContentHandler {
 public:
  virtual ~ZrContentHandler() = default;

  /// Takes an HTTP request before anything else may answer it, whatever its method. Answers
  /// whether an answer was sent or will be, by ZrTransceiverClient::AnswerUntaken() for instance.
  virtual bool TakeRequest(ZrTransceiverClient& /*client*/,
                           const std::shared_ptr<ZrXHeader>& /*request*/) {
    return false;
  }
  /// Serves an HTTP request from pages, scripts and files. Answers yes when an answer was sent or
  /// will be (a script that runs keeps a reference to the request), no when it is not served.
  virtual bool ServeRequest(ZrTransceiverClient& client,
                            const std::shared_ptr<ZrXHeader>& request) = 0;
  /// Whether what serves this request, whose head is there, may read its body.
  virtual bool ReadsBody(ZrTransceiverClient& /*client*/, const ZrXHeader& /*request*/) {
    return true;
  }
  /// Whether what serves this request, whose head is there, takes its body as it comes
  /// (ZrXHeader::inlet): it is then asked to serve the request at once.
  virtual bool StreamsBody(ZrTransceiverClient& /*client*/, const ZrXHeader& /*request*/) {
    return false;
  }
  /// Whether this request, and the answer that nothing serves it, needs nothing that has to be
  /// waited for.
  virtual bool CannotWait(ZrTransceiverClient& /*client*/, const ZrXHeader& /*request*/) {
    return false;
  }
  /// Sends the answer to a request that nothing served.
  virtual void AnswerNotFound(ZrTransceiverClient& client,
                              const std::shared_ptr<ZrXHeader>& request) = 0;
};
