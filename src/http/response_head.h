#pragma once
// The head of an answer, made from its request with ZrXHeader::MakeResponse().

#include <string>

#include "http/fwd.h"
#include "http/message_head.h"

/// An answer. A handler fills status and body, brings it to job state 6 and sends it.
class ZrXResponseHeader : public ZrXHeader {
 public:
  /// The handler that takes the place of the one registered under `handoverName` once the command
  /// is done. The pointer does not own; both empty when nothing is handed over.
  struct Handover {
    std::string handoverName;
    ZrCommandHandler* handoverHandler = nullptr;
  };

  explicit ZrXResponseHeader(std::uint32_t protocolKind)
      : ZrXHeader(ZrMessageType::kAnswer, protocolKind) {}
  /// An answer to a request that came in at `createdTicks` (100-ns ticks since 1970).
  ZrXResponseHeader(std::uint32_t protocolKind, std::int64_t createdTicks)
      : ZrXHeader(ZrMessageType::kAnswer, protocolKind, createdTicks) {}
  ~ZrXResponseHeader() override;

  /// For reading and writing, by the handler and then by the application that called it.
  Handover& HandoverRecord() { return handover_; }

 private:
  Handover handover_;
};
