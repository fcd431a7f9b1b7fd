#pragma once
// Shows a page in the user's browser.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sync.h"

class ZrRinvalScheduler2;

/// Opens URLs with the desktop's default program for them. Part of the application. Threads: any.
class ZrBrowserLauncher {
 public:
  /// Starts a program by argument vector; answers whether it runs.
  using Start = std::function<bool(std::string_view, const std::vector<std::string>&)>;

  /// The scheduler outlives the launcher. `start` is zr::StartDetachedProgram but in tests.
  explicit ZrBrowserLauncher(ZrRinvalScheduler2& scheduler);
  ZrBrowserLauncher(ZrRinvalScheduler2& scheduler, Start start);

  /// Has the URL opened by a task of the scheduler and returns at once. No, and nothing done, for
  /// every type but "text/html": the caller then tells the user.
  bool open(const std::string& url, std::string_view mimeType);

  /// Starts the first program that can be started: "xdg-open", then the known browsers, in order.
  /// Whether one was. The URL is one argument and goes through no shell; its bytes are unchanged.
  static bool Launch(const std::string& url, const Start& start);

 private:
  ZrRinvalScheduler2& scheduler_;
  const Start start_;
  ZrMutex lock_;
  std::vector<std::uint64_t> tasks_ ZR_GUARDED_BY(lock_);  // IDs not yet fetched
};
