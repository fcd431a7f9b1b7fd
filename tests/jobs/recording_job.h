#pragma once
// A job that remembers what it received, and does what the test asks for each event.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "jobs/job.h"
#include "platform/sync.h"
#include "tests/support/wait.h"

namespace zrtest {

class RecordingJob : public ZrJob {
 public:
  using Handler = std::function<void(const ZrJobEvent&)>;
  explicit RecordingJob(Handler handler = {}) : handler_(std::move(handler)) {}

  bool ReceiveEvent(const ZrJobEvent& event) override ZR_REQUIRES(lock_) {
    {
      const ZrLock hold(texts_);
      received_.push_back(event);
    }
    arrived_.NotifyAll();
    if (handler_) handler_(event);
    return true;
  }
  /// What came so far, once there are at least so many or the limit has passed.
  std::vector<ZrJobEvent> Received(std::size_t count,
                                   std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const ZrLock hold(texts_);
    arrived_.WaitFor(texts_, limit,
                     [&]() ZR_REQUIRES(texts_) { return received_.size() >= count; });
    return received_;
  }
  std::vector<std::string> Texts(std::size_t count) {
    std::vector<std::string> texts;
    for (const ZrJobEvent& event : Received(count)) texts.push_back(event.text);
    return texts;
  }

 private:
  const Handler handler_;
  ZrMutex texts_;
  ZrCondition arrived_;
  std::vector<ZrJobEvent> received_ ZR_GUARDED_BY(texts_);
};

inline ZrJobEvent Event(std::string text) {
  ZrJobEvent event;
  event.text = std::move(text);
  return event;
}

}  // namespace zrtest
