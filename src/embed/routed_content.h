#pragma once
// What stands in front of the files of a program's server: requests that its routes, commands and
// guards are for go to the pool of handlers, all others on to the files.

#include <memory>

#include "embed/handlers.h"
#include "handlers/content_handler.h"

/// Threads: any.
class ZrRoutedContent final : public ZrContentHandler {
 public:
  /// Without files a path that has routes is answered by them alone.
  ZrRoutedContent(std::shared_ptr<ZrHandlers> handlers, std::shared_ptr<ZrContentHandler> others,
                  bool servesFiles);

  bool TakeRequest(ZrTransceiverClient& client, const std::shared_ptr<ZrXHeader>& request) override;
  bool ServeRequest(ZrTransceiverClient& client,
                    const std::shared_ptr<ZrXHeader>& request) override;
  bool ReadsBody(ZrTransceiverClient& client, const ZrXHeader& request) override;
  bool StreamsBody(ZrTransceiverClient& client, const ZrXHeader& request) override;
  /// Handing a request to the pool waits for nothing.
  bool CannotWait(ZrTransceiverClient& client, const ZrXHeader& request) override;
  void AnswerNotFound(ZrTransceiverClient& client,
                      const std::shared_ptr<ZrXHeader>& request) override;

 private:
  ZrRouteTable::Match Find(const ZrXHeader& request) const;
  bool MayBeCommand(const ZrTransceiverClient& client, const ZrXHeader& request) const;

  const std::shared_ptr<ZrHandlers> handlers_;
  const std::shared_ptr<ZrContentHandler> others_;
  const bool servesFiles_;
};
