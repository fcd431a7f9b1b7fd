#include "cli/listenurl.h"

#include "cli/command.h"

zr::cli::ListenUrl zr::cli::ParseListenUrl(std::string_view text) {
  try {
    return ReadListenAddress(text);
  } catch (const AddressError& error) {
    throw UsageError("--listen '" + std::string(text) + "': " + error.what());
  }
}
