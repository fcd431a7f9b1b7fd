#pragma once
// What browsers, proxies and tools expect of a server: RFC 9110 and RFC 9112. What is malformed or
// beyond a limit gets an answer that says so, and its connection is closed behind it.

#include "http/semantics.h"

namespace zr {

/// Limits of a request's head, in bytes; beyond them it is answered with 414 and 431.
inline constexpr std::size_t kMaxRequestLine = std::size_t{16} * 1024;

/// Whether only the server can give a field of that name (lower case): it says where an answer
/// ends, or what it is.
bool IsServersOwnField(std::string_view name);

}  // namespace zr

/// Threads: any.
class ZrStandardSemantics final : public ZrSemantics {
 public:
  ZrReadStep Read(ZrXHeader& message, const HeadCallback& onHead) const override;
  void WriteAnswerHead(ZrXHeader& answer, ZrStringBuf& out) const override;
  std::string_view StatusPhrase(std::uint64_t status) const override;
  bool SendsBody(const ZrXHeader& answer) const override;
  bool RefuseLate(ZrXHeader& message) const override;
  bool IsStandard() const override { return true; }
};
