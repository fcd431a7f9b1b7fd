// The output of a program is cut into head lines and page without losing or adding a byte: what is
// written for the answer's head, up to its own fields, and what stays in the body are the output.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/check.h"
#include "http/message_head.h"
#include "http/response_head.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string output(reinterpret_cast<const char*>(data), size);
  const auto answer = zr::MakeJob<ZrXResponseHeader>(zr::kProtocolHttp);
  answer->SetBodyText(output);
  answer->cgiHeadPending = true;
  ZrStringBuf out;
  ZR_FUZZ_CHECK(answer->WriteHead(out));

  const std::string length = std::to_string(answer->body->Size());
  const std::string ownFields = "HTTP/1.1 200 OK\r\nServer: " + std::string(zr::kServerProduct) +
                                "\r\nContent-Length: " + length + "\r\n";
  ZR_FUZZ_CHECK(out.Unread().starts_with(ownFields));
  const std::string head(out.Unread().substr(ownFields.size()));
  const std::string page(answer->body->Unread());
  const std::size_t separator = output.find("\r\n\r\n");
  if (separator == std::string::npos) {
    ZR_FUZZ_CHECK(head == "\r\n" && page == output);
  } else {
    // A client finds the end of the head where it was cut.
    ZR_FUZZ_CHECK(head + page == output);
    ZR_FUZZ_CHECK(ownFields.size() + head.size() == out.Unread().find("\r\n\r\n") + 4);
  }
  return 0;
}
