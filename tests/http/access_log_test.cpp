#include "http/access_log.h"

#include <gtest/gtest.h>

#include "base/exception.h"
#include "platform/time_text.h"

namespace {

using zr::AccessLogFormat;

constexpr std::int64_t kTime = std::int64_t{784'111'777} * 10'000'000;

TEST(AccessLog, FormatsOfOthersAreReadAsTheyReadThem) {
  const zr::AccessLogEntry entry{.remote = "10.0.0.1",
                                 .scheme = "http",
                                 .created = kTime,
                                 .requestText = "GET /a\"\\\n\xC3\xBC\xFF",
                                 .version = "HTTP/1.1",
                                 .status = 200,
                                 .bytes = 150,
                                 .headBytes = 50,
                                 .referer = "-",
                                 .userAgent = "x\x7f\xE2\x82\xAC\xED\xA0\x80\xC0\xAF"};
  EXPECT_EQ(zr::AccessLogLine(entry), "10.0.0.1 - http - [" +
                                          zr::LocalTimeText(kTime / 10'000'000) +
                                          "] \"GET /a\"\\\\x0A\xC3\xBC\xFF\" --> 200 150 \"-\" "
                                          "\"x\\x7F\xE2\x82\xAC\xED\xA0\x80\xC0\xAF\"");
  EXPECT_EQ(zr::AccessLogLine(entry, AccessLogFormat::kCombined),
            "10.0.0.1 - - [06/Nov/1994:08:49:37 +0000] \"GET /a\\\"\\\\\\x0A\xC3\xBC\xFF "
            "HTTP/1.1\" 200 100 \"-\" \"x\\x7F\xE2\x82\xAC\xED\xA0\x80\xC0\xAF\"");
  const std::string json = zr::AccessLogLine(entry, AccessLogFormat::kJson);
  EXPECT_TRUE(json.starts_with(
      "{\"time\":\"1994-11-06T08:49:37Z\",\"remote\":\"10.0.0.1\",\"scheme\":\"http\","
      "\"method\":\"GET\",\"target\":\"/a\\\"\\\\\\u000a\xC3\xBC\\u00ff\",\"protocol\":\"HTTP/"
      "1.1\","
      "\"status\":200,\"bytes\":100,\"seconds\":"))
      << json;
  EXPECT_TRUE(
      json.ends_with(",\"referer\":\"\",\"user_agent\":"
                     "\"x\\u007f\xE2\x82\xAC\\u00ed\\u00a0\\u0080\\u00c0\\u00af\"}"))
      << json;
  zr::AccessLogEntry late;
  late.requestText = "-";
  late.status = 408;
  EXPECT_EQ(zr::AccessLogLine(late, AccessLogFormat::kCombined),
            " - - [01/Jan/1970:00:00:00 +0000] \"-\" 408 - \"\" \"\"");
  EXPECT_THROW(zr::AccessLogFormatNamed("jso"), ZrException);
}

}  // namespace
