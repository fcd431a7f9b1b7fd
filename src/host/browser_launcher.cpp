#include "host/browser_launcher.h"

#include <array>
#include <utility>

#include "jobs/scheduler.h"
#include "platform/detached.h"

namespace {

constexpr std::array<std::string_view, 8> kPrograms = {
    "xdg-open",      "opera",   "chromium",  "chromium-browser",
    "google-chrome", "firefox", "konqueror", "epiphany"};

}  // namespace

ZrBrowserLauncher::ZrBrowserLauncher(ZrRinvalScheduler2& scheduler)
    : ZrBrowserLauncher(scheduler, &zr::StartDetachedProgram) {}

ZrBrowserLauncher::ZrBrowserLauncher(ZrRinvalScheduler2& scheduler, Start start)
    : scheduler_(scheduler), start_(std::move(start)) {}

bool ZrBrowserLauncher::open(const std::string& url, std::string_view mimeType) {
  if (mimeType != "text/html") return false;
  ZrRinvalTaskDescription description;
  description.name = "intention";
  // The task holds what it needs. What former ones have left is fetched here.
  const ZrLock hold(lock_);
  std::erase_if(tasks_, [this](std::uint64_t id) {
    const bool done = scheduler_.IsDone(id);
    if (done) scheduler_.FetchResult(id);
    return done;
  });
  tasks_.push_back(scheduler_.Submit(
      [url, start = start_](ZrRinvalJobParametersAndResult* record) {
        Launch(url, start);
        return record;
      },
      nullptr, description));
  return true;
}

bool ZrBrowserLauncher::Launch(const std::string& url, const Start& start) {
  for (const std::string_view program : kPrograms)
    if (start(program, {url})) return true;
  return false;
}
