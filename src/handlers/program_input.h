#pragma once
// Where the standard input of a program comes from while it runs.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/string_buffer.h"
#include "http/fwd.h"
#include "platform/pipe.h"

/// Threads: the run's.
class ZrProgramSource {
 public:
  enum class Next {
    kSome,    ///< Bytes were added.
    kWait,    ///< None are there now: Descriptor() is readable when that may have changed.
    kEnd,     ///< That was all.
    kFailed,  ///< The rest will not come: the program is to be ended.
  };
  virtual ~ZrProgramSource() = default;
  /// Adds what is there to the target. Called when the program has taken what came before.
  virtual Next Take(ZrStringBuf& to) = 0;
  virtual int Descriptor() const = 0;
  /// When it is to be asked again though nothing has come.
  virtual std::optional<std::chrono::steady_clock::time_point> Due() const { return std::nullopt; }
};

/// The body of a request, as it arrives.
class ZrProgramInput : public ZrProgramSource {
 public:
  explicit ZrProgramInput(std::shared_ptr<ZrBodyInlet> body);
  ~ZrProgramInput() override;
  ZrProgramInput(const ZrProgramInput&) = delete;
  ZrProgramInput& operator=(const ZrProgramInput&) = delete;

  Next Take(ZrStringBuf& to) override;
  int Descriptor() const override { return arrived_->Descriptor(); }
  std::optional<std::chrono::steady_clock::time_point> Due() const override;
  /// The status of the answer when it has failed.
  std::uint64_t Refusal() const;

 private:
  const std::shared_ptr<ZrBodyInlet> body_;
  const std::shared_ptr<ZrWakeFlag> arrived_ = std::make_shared<ZrWakeFlag>();
};
