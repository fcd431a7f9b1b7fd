#pragma once
// All that a program has set to answer requests. Filled before the server starts, then only read;
// shared by the server and the requests that are still open, one of which may outlive it.

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "embed/handler_pool.h"
#include "embed/route_table.h"
#include "handlers/site.h"
#include "velkoro/server.h"

struct ZrHandlers {
  ZrHandlers(std::size_t threads, std::chrono::nanoseconds limit) : pool(threads, limit) {}

  struct Guard {
    std::string path;  ///< without a slash at its end; empty: before every handler
    velkoro::Server::Guard ask;
    bool Covers(std::string_view asked) const {
      return asked.starts_with(path) && (asked.size() == path.size() || asked[path.size()] == '/');
    }
  };
  /// Whether one is asked whatever answers that path.
  bool Guards(std::string_view path) const {
    for (const Guard& guard : paths)
      if (guard.Covers(path)) return true;
    return false;
  }

  ZrRouteTable routes;
  std::map<std::string, velkoro::Server::Handler, std::less<>> commands;
  std::vector<Guard> guards;  // before every handler ...
  std::vector<Guard> paths;   // ... and before whatever answers below a path
  std::vector<velkoro::Server::Witness> witnesses;
  std::function<void(const std::string&)> failed;  // a handler threw; a line for the log
  const std::shared_ptr<const ZrSite> site = zr::MakeSite();
  ZrHandlerPool pool;
};
