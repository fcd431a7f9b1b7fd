#include "handlers/program_stream.h"

#include <algorithm>
#include <utility>

#include "handlers/request_handler.h"
#include "http/body_coding.h"
#include "http/field_list.h"
#include "http/message_head.h"
#include "http/response_head.h"
#include "http/semantics.h"

namespace {

using std::chrono::steady_clock;

constexpr std::uint64_t kBadGateway = 502;
constexpr std::uint64_t kGatewayTimeout = 504;
constexpr std::uint64_t kInternalError = 500;

// Its reader waits for each line.
bool IsEventStream(const ZrXHeader& answer) {
  const std::string_view type = answer.headers.First("content-type");
  return zr::EqualsIgnoringCase(zr::TrimBlanks(type.substr(0, type.find(';'))),
                                "text/event-stream");
}

}  // namespace

ZrProgramStream::ZrProgramStream(ZrTransceiverClient& client, const ZrXHeader& request,
                                 std::function<void()> isLong)
    : client_(client), request_(request), isLong_(std::move(isLong)) {}

ZrProgramStream::~ZrProgramStream() = default;

bool ZrProgramStream::MustWait() {
  if (state_ != State::kStream) return false;
  room_->Lower();
  return stream_->MustWait();
}

bool ZrProgramStream::Commit(std::size_t bytes) {
  buffer_.Commit(bytes);
  if (state_ == State::kHead && !TakeHead()) return state_ != State::kBad;
  switch (state_) {
    case State::kGather:
      if (buffer_.Size() > kGatherBytes) Begin();
      break;
    case State::kStream:
      Pass();
      break;
    case State::kRedirect:
    case State::kOver:
      buffer_.Clear();
      break;
    case State::kHead:
    case State::kBad:
      break;
  }
  return true;
}

// Whether the head is there.
bool ZrProgramStream::TakeHead() {
  const std::string_view written = buffer_.Unread();
  // It is read once its end may have come; a program may write it byte by byte.
  const std::size_t from = scanned_ > 3 ? scanned_ - 3 : 0;
  const bool mayEnd = written.find("\n\n", from) != written.npos ||
                      written.find("\n\r\n", from) != written.npos || written.front() == '\n' ||
                      written.front() == '\r' || written.size() >= zr::kMostProgramHead;
  scanned_ = written.size();
  if (!mayEnd) return false;
  program_ = zr::ReadProgramAnswer(written);
  if (program_.read == ZrProgramAnswer::Read::kIncomplete) return false;
  if (program_.read == ZrProgramAnswer::Read::kMalformed) {
    state_ = State::kBad;
    return false;
  }
  buffer_.Consume(program_.headBytes);
  if (!program_.localRedirect.empty()) {
    state_ = State::kRedirect;
    return true;
  }
  answer_ = request_.MakeResponse();
  answer_->SetStatus(program_.status);
  for (const auto& [name, value] : program_.fields) answer_->AddField(name, value);
  state_ = State::kGather;
  due_ = steady_clock::now() + kGatherTime;
  if (IsEventStream(*answer_)) Begin();
  return true;
}

void ZrProgramStream::OnTime() {
  due_.reset();
  if (state_ == State::kGather) return Begin();
  longAt_.reset();
  isLong_();
}

void ZrProgramStream::Begin() {
  due_ = longAt_;
  answer_->addedFields = client_.Site().Fields();
  stream_ = client_.OpenAnswer(request_, {.room = [room = room_] { room->Raise(); }, .gone = {}});
  answer_->lengthKnown = program_.contentLength.has_value();
  answer_->contentLength = program_.contentLength.value_or(0);
  ZrCoding coding = client_.Compression() == nullptr
                        ? ZrCoding::kIdentity
                        : zr::ChooseBodyCoding(request_, *answer_, program_.contentLength);
  // Which one the page would have depends on its length.
  if (request_.method == ZrMethod::kHead && buffer_.Empty()) coding = ZrCoding::kIdentity;
  if (coding != ZrCoding::kIdentity) zr::SetBodyCoding(*answer_, coding);
  if (!stream_->Begin(answer_, zr::MakeBodyEncoder(coding))) {
    state_ = State::kOver;
    return buffer_.Clear();
  }
  state_ = State::kStream;
  if (buffer_.Empty()) return stream_->Flush();
  Pass();
}

// A client that needs no more has its end at once; the program goes on to its own.
void ZrProgramStream::Pass() {
  const bool more = stream_->Write(buffer_.Unread());
  buffer_.Clear();
  if (more) return;
  stream_->End();
  state_ = State::kOver;
}

void ZrProgramStream::SendWhole() {
  const std::uint64_t announced = program_.contentLength.value_or(buffer_.Size());
  if (announced > buffer_.Size() && answer_->semantics->SendsBody(*answer_))
    return client_.AnswerStatus(request_, kBadGateway);
  // A redirect of no type has no page, by whatever method.
  const bool pageless = buffer_.Empty() && announced == 0 &&
                        answer_->headers.contains("location") &&
                        !answer_->headers.contains("content-type");
  const bool untold = request_.method == ZrMethod::kHead && buffer_.Empty();
  if (!pageless && (untold || announced != buffer_.Size())) {
    // Its own length counts: what is beyond it is dropped. One that wrote no page for a HEAD
    // request has told no length at all.
    Begin();
    if (state_ == State::kStream) stream_->End();
    return;
  }
  answer_->body = std::make_unique<ZrStringBuf>(std::move(buffer_));
  client_.SendAnswer(request_, answer_);
}

std::string ZrProgramStream::Finish(ZrPipeExecEnd end, std::uint64_t refusal) {
  const bool whole = end == ZrPipeExecEnd::kEnded;
  switch (state_) {
    case State::kStream:
      if (whole)
        stream_->End();
      else
        stream_->Abort();
      break;
    case State::kGather:
      if (stream_ && stream_->Begun()) {  // memory ran out while it began
        stream_->Abort();
        break;
      }
      if (whole) {
        SendWhole();
        break;
      }
      [[fallthrough]];
    case State::kHead:
    case State::kBad:
      if (end == ZrPipeExecEnd::kRunLimit)
        client_.AnswerStatus(request_, kGatewayTimeout);
      else if (end == ZrPipeExecEnd::kNoInput)
        client_.AnswerStatus(request_, refusal);
      else
        client_.AnswerStatus(request_,
                             end == ZrPipeExecEnd::kStopped ? kInternalError : kBadGateway);
      break;
    case State::kRedirect:
      if (whole) return program_.localRedirect;
      client_.AnswerStatus(request_, kBadGateway);
      break;
    case State::kOver:
      break;
  }
  state_ = State::kOver;
  return {};
}
