#include "handlers/program_input.h"

#include <utility>

#include "transceiver/body_inlet.h"

ZrProgramInput::ZrProgramInput(std::shared_ptr<ZrBodyInlet> body) : body_(std::move(body)) {
  body_->OnArrival([arrived = arrived_] { arrived->Raise(); });
}

ZrProgramInput::~ZrProgramInput() { body_->OnArrival({}); }

// Lowered first: what comes from here on is either taken or told.
ZrProgramSource::Next ZrProgramInput::Take(ZrStringBuf& to) {
  arrived_->Lower();
  switch (body_->Take(to)) {
    case ZrBodyInlet::Next::kSome:
      return Next::kSome;
    case ZrBodyInlet::Next::kWait:
      return Next::kWait;
    case ZrBodyInlet::Next::kEnd:
      return Next::kEnd;
    case ZrBodyInlet::Next::kFailed:
      break;
  }
  return Next::kFailed;
}

std::optional<std::chrono::steady_clock::time_point> ZrProgramInput::Due() const {
  return body_->Due();
}

std::uint64_t ZrProgramInput::Refusal() const { return body_->Refusal(); }
