#include "embed/routed_content.h"

#include <string_view>
#include <utility>

#include "embed/exchange.h"
#include "handlers/request_handler.h"
#include "http/field_list.h"
#include "http/message_head.h"

ZrRoutedContent::ZrRoutedContent(std::shared_ptr<ZrHandlers> handlers,
                                 std::shared_ptr<ZrContentHandler> others, bool servesFiles)
    : handlers_(std::move(handlers)), others_(std::move(others)), servesFiles_(servesFiles) {}

// A path may have a route for POST, and a file that is read by GET.
ZrRouteTable::Match ZrRoutedContent::Find(const ZrXHeader& request) const {
  ZrRouteTable::Match match = handlers_->routes.Find(request.path, request.method);
  const bool reads = request.method == ZrMethod::kGet || request.method == ZrMethod::kHead;
  if (match.allowed != 0 && servesFiles_) match.allowed |= ZrRouteTable::Bit(ZrMethod::kGet);
  if ((reads && servesFiles_) || !request.semantics->IsStandard()) match.allowed = 0;
  return match;
}

bool ZrRoutedContent::MayBeCommand(const ZrTransceiverClient& client,
                                   const ZrXHeader& request) const {
  if (handlers_->commands.empty()) return false;
  if (request.allFields.contains(client.idField)) return true;
  const std::string type = zr::LowerCase(request.headers.First("content-type"));
  return type.starts_with("multipart/form-data") ||
         type.starts_with("application/x-www-form-urlencoded");
}

bool ZrRoutedContent::TakeRequest(ZrTransceiverClient& client,
                                  const std::shared_ptr<ZrXHeader>& request) {
  ZrRouteTable::Match match = Find(*request);
  const bool answersHere = match.route == nullptr && !handlers_->Guards(request->path) &&
                           !MayBeCommand(client, *request);
  if (answersHere && match.allowed == 0) return false;
  if (answersHere) {
    velkoro::Exchange::AnswerForMethod(client, *request, match.allowed);
    return true;
  }
  const auto exchange =
      std::make_shared<velkoro::Exchange>(handlers_, client, request, std::move(match));
  if (!handlers_->pool.Submit(exchange)) client.AnswerStatus(*request, 503);
  return true;
}

bool ZrRoutedContent::ServeRequest(ZrTransceiverClient& client,
                                   const std::shared_ptr<ZrXHeader>& request) {
  return others_->ServeRequest(client, request);
}

bool ZrRoutedContent::ReadsBody(ZrTransceiverClient& client, const ZrXHeader& request) {
  return Find(request).route != nullptr || MayBeCommand(client, request) ||
         others_->ReadsBody(client, request);
}

bool ZrRoutedContent::StreamsBody(ZrTransceiverClient& client, const ZrXHeader& request) {
  const ZrRouteTable::Match match = Find(request);
  return match.route == nullptr && match.allowed == 0 && !handlers_->Guards(request.path) &&
         !MayBeCommand(client, request) && others_->StreamsBody(client, request);
}

bool ZrRoutedContent::CannotWait(ZrTransceiverClient& client, const ZrXHeader& request) {
  return Find(request).route != nullptr || handlers_->Guards(request.path) ||
         others_->CannotWait(client, request);
}

void ZrRoutedContent::AnswerNotFound(ZrTransceiverClient& client,
                                     const std::shared_ptr<ZrXHeader>& request) {
  others_->AnswerNotFound(client, request);
}
