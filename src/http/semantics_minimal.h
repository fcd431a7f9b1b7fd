#pragma once
// The system's own dialect: GET and POST, eight statuses, one head with "Server" and
// "Content-Length". What means nothing in it closes the connection without an answer.

#include "http/semantics.h"

/// Threads: any.
class ZrMinimalSemantics final : public ZrSemantics {
 public:
  ZrReadStep Read(ZrXHeader& message, const HeadCallback& onHead) const override;
  void WriteAnswerHead(ZrXHeader& answer, ZrStringBuf& out) const override;
  std::string_view StatusPhrase(std::uint64_t status) const override;
  bool SendsBody(const ZrXHeader&) const override { return true; }
  bool RefuseLate(ZrXHeader&) const override { return false; }
  bool IsStandard() const override { return false; }
};
