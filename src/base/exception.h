#pragma once
// The exception types of the whole system. Set-up and parsing throw them; socket and I/O paths
// answer with small codes instead.

#include <exception>
#include <string>

/// A failure with a message for the user. The number and the tag are the fixed ones by which the
/// failures of old interfaces are listed; nothing shows them, and a new failure has none.
class ZrException : public std::exception {
 public:
  explicit ZrException(std::string message, int number = 0, const char* tag = "n.a.");
  /// The message, unchanged. The text lives as long as the exception.
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

/// A failure of the TLS set-up: what() is "(SSL) " followed by the message.
class ZrException_SSL : public ZrException {
 public:
  explicit ZrException_SSL(const std::string& message, int number = 0, const char* tag = "n.a.");
};
