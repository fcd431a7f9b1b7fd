#include "host/zrquarnapplication2.h"

#include <gtest/gtest.h>

#include "host/zrbrowserlauncher.h"
#include "http/zrprotocolkind.h"
#include "http/zrxresponseheader.h"
#include "velkoro/host.h"

namespace {

TEST(BrowserLauncher, TriesTheDesktopThenTheBrowsersInOrder) {
  std::vector<std::string> tried;
  const auto refuseUntil = [&](std::string_view last) {
    return [&tried, last](std::string_view program, const std::vector<std::string>& arguments) {
      EXPECT_EQ(arguments, std::vector<std::string>{"http://a:1/;$(x)"});
      tried.emplace_back(program);
      return program == last;
    };
  };
  EXPECT_TRUE(ZrBrowserLauncher::Launch("http://a:1/;$(x)", refuseUntil("chromium")));
  EXPECT_EQ(tried, (std::vector<std::string>{"xdg-open", "opera", "chromium"}));
  tried.clear();
  EXPECT_FALSE(ZrBrowserLauncher::Launch("http://a:1/;$(x)", refuseUntil("none")));
  EXPECT_EQ(tried.size(), 8u);
}

/// Answers with its command; says when it is released.
class Recorder : public ZrRequestHandler {
 public:
  Recorder(std::string name, std::vector<std::string>& log) : name_(std::move(name)), log_(log) {}
  std::string Name() const override { return name_; }
  void Request(ZrXHeader&, ZrXResponseHeader& answer, const std::string& command) override {
    log_.push_back(name_ + tag + ":" + command);
    answer.HandoverRecord().handoverName = handoverName;
    answer.HandoverRecord().handoverHandler = next;
  }
  void Release() override { log_.push_back(name_ + tag + " released"); }

  std::string tag;
  std::string handoverName;
  ZrRequestHandler* next = nullptr;

 private:
  const std::string name_;
  std::vector<std::string>& log_;
};

TEST(Application, KeepsHandlersByNameAndReleasesThemInOrder) {
  std::vector<std::string> log;
  Recorder b("b", log);
  Recorder a("a", log);
  Recorder second("a", log);
  Recorder other("a", log);
  second.tag = "2";
  other.tag = "3";
  {
    ZrQuarnApplication2 application(nullptr, {}, {});
    const auto request = zr::MakeJob<ZrXHeader>(ZrMessageType::kGet, zr::kProtocolHttp);
    const auto dispatch = [&](const char* name, const char* command) {
      const auto answer = request->MakeResponse();
      application.dispatchToHandler(name, *request, *answer, command);
    };
    application.registerHandler(&b);
    application.registerHandler(&a);
    dispatch("c", "nobody");
    a.handoverName = "b";  // another handler's name hands nothing over
    a.next = &second;
    dispatch("a", "1");
    a.handoverName = "a";
    dispatch("a", "2");  // handed over behind the command
    dispatch("a", "3");
    application.registerHandler(&other);
    dispatch("a", "4");
  }
  EXPECT_EQ(log,
            (std::vector<std::string>{"a:1", "a:2", "a2:3", "a3:4", "a3 released", "b released"}));
}

TEST(HostEntry, ChecksItsArgumentsInOrder) {
  struct Case {
    const char* address;
    const char* start;
    const char* cgi;
    const char* certificate;
    const char* key;
    const char* message;
  };
  const Case cases[] = {
      {"", nullptr, "", nullptr, nullptr, "options are missing"},
      {"", "", nullptr, "", "", "options are missing"},
      {"", "", "", "", nullptr, "keys are missing"},
      // Nothing is missing: the failure is that of the certificate.
      {"", "", "", "", "", "(SSL) can't find ca certificate and/or private key"},
      {"", "", "", "none.pem", "none.pem", "(SSL) problem with SSL key pair"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    try {
      StartHTTPServer(c.address, 0, c.start, c.cgi, c.certificate, c.key);
      ADD_FAILURE() << "started";
    } catch (const std::exception& failure) {
      EXPECT_STREQ(failure.what(), c.message);
    }
  }
  EXPECT_EQ(ServerPort(nullptr), 0);
  EXPECT_EQ(StopHTTPserver(nullptr), 0);
}

}  // namespace
