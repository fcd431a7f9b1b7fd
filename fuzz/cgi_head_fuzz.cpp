// The output of a program is cut into head lines and page: what goes out is one head, made of lines
// that the program wrote, and behind it as many bytes as it announces.

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/number.h"
#include "fuzz/check.h"
#include "http/field_list.h"
#include "http/message_head.h"
#include "http/program_head.h"
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
  ZR_FUZZ_CHECK(output.ends_with(page));
  const std::string taken = output.substr(0, output.size() - page.size());
  ZR_FUZZ_CHECK(taken.size() == zr::ProgramHeadSize(output));
  // A client finds the end of the head where it was cut, and no other length in it.
  ZR_FUZZ_CHECK(ownFields.size() + head.size() == out.Unread().find("\r\n\r\n") + 4);
  for (std::size_t at = 0; at < head.size();) {
    const std::size_t end = head.find("\r\n", at);
    const std::string line = head.substr(at, end - at);
    ZR_FUZZ_CHECK(line.find_first_of("\r\n") == std::string::npos);
    ZR_FUZZ_CHECK(taken.empty() || taken.find(line + "\r\n") != std::string::npos);
    const std::string name = line.substr(0, line.find(':'));
    ZR_FUZZ_CHECK(!zr::EqualsIgnoringCase(name, "transfer-encoding"));
    if (zr::EqualsIgnoringCase(name, "content-length"))
      ZR_FUZZ_CHECK(zr::ParseDigits(zr::TrimBlanks(line.substr(name.size() + 1))) == page.size());
    at = end + 2;
  }
  return 0;
}
