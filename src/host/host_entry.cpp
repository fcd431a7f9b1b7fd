#include <chrono>
#include <cstdlib>
#include <exception>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/line_writer.h"
#include "base/number.h"
#include "base/path.h"
#include "host/server_handle.h"
#include "http/protocol_kind.h"
#include "jobs/job_registry.h"
#include "platform/library.h"
#include "platform/thread.h"
#include "velkoro/host.h"

namespace {

/// The application that the host entry's servers are in the configuration storage.
constexpr const char* kApplicationName = "quarntwodll";

/// How long a stop waits for the log lines of the server at most.
constexpr std::chrono::seconds kLastLines{1};

/// The absolute value, also where the negative number has no positive twin: that port is refused
/// when the server binds it, like every other beyond 65535.
int PortNumber(int port) {
  return port == std::numeric_limits<int>::min() ? std::numeric_limits<int>::max() : std::abs(port);
}

/// Ends the server and frees the handle; returns its reference to the library. In a forked child
/// there is no server, and nothing that could end it.
void* EndServer(void* server) {
  if (server == nullptr || zr::IsForkOfThreads()) return nullptr;
  const std::unique_ptr<ZrServerHandle> handle(static_cast<ZrServerHandle*>(server));
  handle->application->beforeStop();
  handle->application.reset();
  // A thread of the jobs may still be destroying what was dropped by an event.
  ZrJobRegistry::Instance().WaitForReaper();
  zr::FlushLines(kLastLines);
  return handle->library;
}

}  // namespace

void* StartHTTPServer(const char* address, int port, const char* startPath, const char* cgiBinPath,
                      const char* caCertificate, const char* privateKey) {
  if (address == nullptr || startPath == nullptr || cgiBinPath == nullptr)
    throw ZrException("options are missing", 27, "src");
  if (caCertificate == nullptr || privateKey == nullptr)
    throw ZrException("keys are missing", 31, "src");
  if (zr::IsForkOfThreads()) throw ZrException("a server was started before the fork");
  // A start that fails below leaves nothing behind: the handle owns all of it.
  auto handle = std::make_unique<ZrServerHandle>();
  handle->storage.SetApplication(kApplicationName);
  handle->options.Set("no_standard_handler", "true");
  handle->options.Set("no_browser_popup", "true");
  handle->options.Set("startpath", zr::NormalizeDirectoryPath(startPath));
  handle->options.Set("cgibinpath", zr::NormalizeDirectoryPath(cgiBinPath));

  ZrServerDefinition server{.address = address,
                            .port = PortNumber(port),
                            .protocolKind = static_cast<std::int32_t>(zr::kProtocolHttps)};
  server.options.Set("cacertificate", caCertificate);
  server.options.Set("privatekey", privateKey);
  std::vector<ZrServerDefinition> servers;
  servers.push_back(std::move(server));
  handle->application =
      std::make_unique<ZrQuarnApplication2>(&handle->storage, std::move(servers), handle->options);
  handle->application->afterCreate();
  handle->application->startServers();
  handle->library = zr::HoldLibrary();
  return handle.release();
}

int ServerPort(void* server) {
  if (server == nullptr) return 0;
  try {
    const ZrOptionMap options = static_cast<ZrServerHandle*>(server)->application->getOptions();
    const std::string port = options.Get("tcp_port_https", options.Get("tcp_port_http"));
    return port.empty() ? 0 : static_cast<int>(zr::ParseUnsignedLong(port));
  } catch (const std::exception&) {
    return 0;
  }
}

ZR_ENDS_IN_CALL int StopHTTPserver(void* server) {
  void* const library = EndServer(server);
  ZR_LAST_CALL return zr::ReleaseLibrary(library);
}
