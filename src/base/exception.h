#pragma once
// The exception types of the whole system. Set-up and parsing throw them; socket and I/O paths
// answer with small codes instead.

#include <exception>
#include <string>

/// A failure with a message for the user. The line number and the source tag say where it was
/// raised; they are no part of any text.
class ZrException : public std::exception {
 public:
  ZrException(std::string message, int line, const char* source);
  /// The message, unchanged. The text lives as long as the exception.
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

/// A failure of the TLS set-up: what() is "(SSL) " followed by the message.
class ZrException_SSL : public ZrException {
 public:
  ZrException_SSL(const std::string& message, int line, const char* source);
};
