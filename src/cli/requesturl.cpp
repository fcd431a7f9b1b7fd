#include "cli/requesturl.h"

#include "cli/command.h"

zr::cli::RequestUrl zr::cli::ParseRequestUrl(std::string_view text) {
  try {
    return ReadRequestAddress(text);
  } catch (const AddressError& error) {
    throw UsageError("'" + std::string(text) + "': " + error.what());
  }
}
