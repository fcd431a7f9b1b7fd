#include "servers/tls_addon.h"

#include <atomic>
#include <utility>

#include "base/exception.h"
#include "base/line_writer.h"
#include "http/server_head.h"
#include "jobs/job.h"
#include "transceiver/transceiver.h"

namespace {

// Decides whether a server that cannot start tells its host by an exception: only while it is the
// first. Others are running otherwise, and must not be taken down with it.
std::atomic<std::uint64_t> addonCount{0};

void CloseInOrder(ZrTransceiver& owner, ZrTransceiverConnection* connection) {
  owner.FinishConnection(*connection);
}

}  // namespace

std::uint64_t ZrTransceiverServerL1_SSLAddon::Count() { return addonCount.load(); }

ZrTransceiverServerL1_SSLAddon::ZrTransceiverServerL1_SSLAddon(const ZrXServerHeader& configuration)
    : certificateFile_(configuration.GetOption("cacertificate")),
      privateKeyFile_(configuration.GetOption("privatekey")),
      isServer_(true) {
  ++addonCount;
  try {
    context_ = zr::MakeTlsServerContext(certificateFile_, privateKeyFile_);
  } catch (const ZrException_SSL& failure) {
    if (--addonCount == 0) throw;
    zr::WriteErrorLine(std::string(failure.what()) + ": the server for \"" + certificateFile_ +
                       "\" does not listen");
  }
}

ZrTransceiverServerL1_SSLAddon::ZrTransceiverServerL1_SSLAddon(const ClientForm& form)
    : isServer_(false) {
  ++addonCount;
  context_ = zr::MakeTlsClientContext(form.trust);
}

ZrTransceiverServerL1_SSLAddon::~ZrTransceiverServerL1_SSLAddon() = default;

std::shared_ptr<ZrTransceiverConnection_SSLAddon> ZrTransceiverServerL1_SSLAddon::CreateConnection(
    ZrTransceiver& owner, const std::string& receiverName, const std::string& peerName,
    const ZrServerCallback_t& record, std::shared_ptr<ZrSocketIPvx> socket) {
  if (isServer_) {
    return zr::MakeJob<ZrTransceiverConnection_SSLAddon>(
        context_.get(), std::move(socket), owner, receiverName, peerName, record, &CloseInOrder);
  }
  return zr::MakeJob<ZrTransceiverConnection_SSLAddon>(context_.get(), peer_, std::move(socket),
                                                       owner, receiverName, peerName, record,
                                                       &CloseInOrder);
}
