#pragma once
// A complete request with a form body, for the targets that decode those.

#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "http/form_body.h"

inline std::shared_ptr<ZrXHeader> DecodeForm(std::string_view contentType, std::string_view body) {
  // What the decoder reports to its user is no finding.
  std::cerr.setstate(std::ios_base::badbit);
  auto request = zr::MakeJob<ZrXHeader>(ZrMessageType::kPost, zr::kProtocolHttp);
  request->headers.Append("content-type", contentType);
  request->declaredLength = body.size();
  request->body = std::make_unique<ZrStringBuf>(std::string(body));
  ZR_FUZZ_CHECK(ParseFormBody(*request) == ZrReadResult::kComplete);
  ZR_FUZZ_CHECK(request->body->Unread() == body);
  ZR_FUZZ_CHECK(request->blocks.size() <= zr::kMaxFormFields);
  ZR_FUZZ_CHECK(request->byPosition.size() == request->blocks.size());
  return request;
}
