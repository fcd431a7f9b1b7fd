// A web application of the static library: it registers a handler for form commands, builds its
// pages from element classes and hands over to a second handler.
//
//   velkoro_forms [PORT [CERTIFICATE KEY]]
//
// Port 0, the default, lets the system choose one. With the names of a PEM certificate and key file
// the server speaks HTTPS, without them plain HTTP. The program prints the address it listens at
// and ends with its standard input.

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "base/exception.h"
#include "base/number.h"
#include "base/server_callback.h"
#include "handlers.h"
#include "host/application.h"
#include "http/protocol_kind.h"

namespace {

/// Shows the start page to visitors who come without a command.
class FormsApplication : public ZrQuarnApplication2 {
 public:
  FormsApplication(std::vector<ZrServerDefinition> servers, ZrOptionMap options,
                   ZrCommandHandler* first)
      : ZrQuarnApplication2(nullptr, std::move(servers), std::move(options)), first_(first) {
    registerHandler(first);
  }

  // Requests may be on their way to nullQuery(): they end while it is still there.
  ~FormsApplication() override { stopServers(); }

  ZrCommandHandler* nullQuery(const std::string& /*name*/) override { return first_; }

 private:
  ZrCommandHandler* const first_;
};

ZrServerDefinition DefinitionOf(const std::vector<std::string>& arguments) {
  ZrServerDefinition server;
  server.address = "127.0.0.1";
  server.protocolKind = zr::kProtocolHttp;
  if (!arguments.empty()) {
    const auto port = zr::ParseDigits(arguments[0]);
    if (!port || *port > 65535) throw ZrException("no port: " + arguments[0]);
    server.port = static_cast<std::int32_t>(*port);
  }
  if (arguments.size() == 3) {
    server.protocolKind = zr::kProtocolHttps;
    server.options.Set("cacertificate", arguments[1]);
    server.options.Set("privatekey", arguments[2]);
  }
  return server;
}

int Run(const std::vector<std::string>& arguments) {
  if (arguments.size() == 2 || arguments.size() > 3) {
    std::cerr << "usage: velkoro_forms [PORT [CERTIFICATE KEY]]\n";
    return 2;
  }
  forms::ClosedHandler closed;
  forms::FormHandler open(&closed);
  closed.SetNext(&open);

  ZrOptionMap options;
  options.Set("no_browser_popup", "true");
  options.Set("_app_context_commandurl", "/");
  FormsApplication application({DefinitionOf(arguments)}, options, &open);
  application.setObserver([](const ZrServerCallback_t& report) {
    if (report.kind != ZrServerCallback_t::kListening) return;
    std::cout << "listening at " << report.info.Get("protocolstring")
              << "://127.0.0.1:" << report.info.Get("port") << "/\n"
              << std::flush;
  });
  application.startServers();
  for (std::string line; std::getline(std::cin, line);) {
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& e) {
    std::cerr << "velkoro_forms: " << e.what() << '\n';
    return 1;
  }
}
