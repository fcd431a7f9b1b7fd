#pragma once
// The configuration of a server: a head used only as the carrier of option texts. Its owner fills
// it, the server that listens with it shares it and reads it.

#include <memory>
#include <string>
#include <string_view>

#include "base/option_map.h"
#include "http/message_head.h"

/// Options of a server by name. GetOption and SetOption may be called from any thread.
class ZrXServerHeader : public ZrXHeader {
 public:
  /// `enabled` is kept for the owner; the server does not look at it.
  ZrXServerHeader(bool enabled, std::uint32_t protocolKind);
  ~ZrXServerHeader() override;

  /// The option's text, the default when it was never set.
  std::string GetOption(std::string_view name, std::string_view defaultValue = {}) const
      ZR_EXCLUDES(headLock);
  void SetOption(std::string_view name, std::string value) ZR_EXCLUDES(headLock);

  const bool enabled;
  /// Something of the owner's that lives as long as this head.
  std::shared_ptr<void> attachment;

 private:
  ZrOptionMap options_ ZR_GUARDED_BY(headLock);
};
