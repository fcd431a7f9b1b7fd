#pragma once
// What the host program holds of a server: the application object and what it is built from.

#include <memory>

#include "base/zroptionmap.h"
#include "host/zrquarnapplication2.h"
#include "storage/zrpersistentappstorage.h"

/// Made by StartHTTPServer() and freed by StopHTTPserver(); opaque to the host.
struct ZrServerHandle {
  ZrPersistentAppStorage storage;
  std::unique_ptr<ZrQuarnApplication2> application;  // none until it is built
  ZrOptionMap options;
};
