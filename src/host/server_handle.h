#pragma once
// What the host program holds of a server: the application object and what it is built from.

#include <memory>

#include "base/option_map.h"
#include "host/application.h"
#include "storage/app_storage.h"

/// Made by StartHTTPServer() and freed by StopHTTPserver(); opaque to the host.
struct ZrServerHandle {
  ZrPersistentAppStorage storage;
  std::unique_ptr<ZrQuarnApplication2> application;  // none until it is built
  ZrOptionMap options;
  void* library = nullptr;  // the reference that keeps this code loaded
};
