// A program of the static library: its registered handlers and stored pages, asked for with curl.

#include <gtest/gtest.h>

#include <stdexcept>

#include "host/application.h"
#include "http/protocol_kind.h"
#include "http/response_head.h"
#include "storage/app_storage.h"
#include "tests/support/run.h"
#include "tests/support/wait.h"

namespace {

using namespace zrtest;

/// Does what the command says.
class Obedient : public ZrCommandHandler {
 public:
  explicit Obedient(std::string title = {}, ZrCommandHandler* next = nullptr)
      : title_(std::move(title)), next_(next) {}
  std::string Name() const override { return "it"; }
  void Request(ZrXHeader& request, ZrXResponseHeader& answer, const std::string& command) override {
    if (command == "throw") throw std::runtime_error("told so");
    if (command == "throw 1") throw 1;
    if (command == "handover") answer.HandoverRecord() = {"it", next_};
    if (command == "mistaken") answer.HandoverRecord() = {"another", next_};
    if (command == "move") {
      answer.SetStatus(303);
      answer.location = "/elsewhere";
    } else if (command != "nothing") {
      answer.SetBodyText(title_ + command + ":" +
                         std::string(zr::FieldText(request.allFields, "x")));
    }
  }
  void Release() override {
    released = true;
    throw 1;
  }

  bool released = false;

 private:
  const std::string title_;
  ZrCommandHandler* const next_;
};

/// Has an object for its command address.
class Commanding : public ZrQuarnApplication2 {
 public:
  using ZrQuarnApplication2::ZrQuarnApplication2;
  ~Commanding() override { stopServers(); }
  ZrCommandHandler* nullQuery(const std::string& name) override {
    return name == "quarnid" ? &handler_ : nullptr;
  }

 private:
  Obedient handler_;
};

TEST(FormCommands, ReachTheirHandlersAndElseTheFiles) {
  const TemporaryFolder folder;
  folder.Write("file", "file");
  folder.Write("stored", "the file of that name");
  ZrPersistentAppStorage storage;
  storage.Variables()["stored"].text = "page";
  ZrOptionMap options;
  options.Set("_baseDirectoryHTTP", folder.Path());
  options.Set("_app_context_commandurl", "/command");
  options.Set("no_browser_popup", "true");
  Obedient next("next ");
  Obedient handler("", &next);
  const ZrServerDefinition server{
      .address = "127.0.0.1", .port = 0, .protocolKind = zr::kProtocolHttp};
  auto application = std::make_unique<Commanding>(&storage, std::vector{server}, options);
  application->registerHandler(&handler);
  // Whatever the program throws at the servers, each request is answered, and once.
  application->setLogSink([](std::string_view) { throw 1; });
  application->setObserver([](const ZrServerCallback_t&) { throw "out"; });
  application->startServers();
  ASSERT_TRUE(WaitFor([&] { return application->getOptions().Has("tcp_port_http"); }));
  const std::string url = "http://127.0.0.1:" + application->getOptions().Get("tcp_port_http");

  struct Case {
    std::vector<std::string> words;  // of curl; the last one is the path
    std::string answer;              // body, status, location
  };
  const Case cases[] = {
      {{"/file?quarnid=it&quarncommand=do&x=a%20b"}, "do:a b 200 "},
      {{"-d", "quarnid=it", "-d", "quarncommand=do", "-d", "x=1%2B1", "/none"}, "do:1+1 200 "},
      {{"-F", "quarnid=it", "-F", "quarncommand=do", "-F", "x=y;type=text/html", "/none"},
       "do:y 200 "},
      {{"/file?quarnid=it&quarncommand=move"}, " 303 " + url + "/elsewhere"},
      {{"/file?quarnid=it"}, ": 200 "},
      // What a command leaves unanswered is a request for a file.
      {{"/file?quarnid=it&quarncommand=nothing"}, "file 200 "},
      {{"/file?quarnid=it&quarncommand=throw"}, "file 200 "},
      {{"/file?quarnid=it&quarncommand=throw%201"}, "file 200 "},
      {{"/file?quarnid=other&quarncommand=do"}, "file 200 "},
      {{"/file?quarncommand=do"}, "file 200 "},
      // The command address has an object of its own.
      {{"/command?x=1"}, "&new:1 200 "},
      {{"/stored"}, "page 200 "},
      // Behind the command another handler takes the place, but only that of its own name.
      {{"/?quarnid=it&quarncommand=mistaken"}, "mistaken: 200 "},
      {{"/?quarnid=it&quarncommand=handover"}, "handover: 200 "},
      {{"/?quarnid=it&quarncommand=do"}, "next do: 200 "},
  };
  for (const Case& c : cases) {
    std::vector<std::string> words = {"curl", "-sS",     "-m", "20",
                                      "-H",   "Expect:", "-w", " %{http_code} %{redirect_url}"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    words.back() = url + words.back();
    const auto got = RunProgram(words);
    EXPECT_EQ(got.out, c.answer) << c.words.back() << got.err;
  }
  EXPECT_EQ(RunProgram({"curl", "-sS", "-m", "20", "-w", "|%{num_connects}|", url + "/file",
                        url + "/?quarnid=it&quarncommand=throw%201", url + "/stored"})
                .out.find("file|1|"),
            0u);
  application.reset();
  EXPECT_TRUE(next.released && !handler.released);
}

}  // namespace
