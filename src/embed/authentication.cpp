// Who is asking: Basic (RFC 7617) and bearer (RFC 6750) authentication.

#include <array>
#include <cstdint>
#include <utility>

#include "http/field_list.h"
#include "velkoro/server.h"

namespace velkoro {
namespace {

/// The credentials of that scheme (in lower case); nothing when there are none.
std::optional<std::string> Credentials(const Request& request, std::string_view scheme) {
  const std::string field = request.Header("authorization");
  const std::size_t blank = field.find(' ');
  if (blank == std::string::npos ||
      !zr::EqualsIgnoringCase(std::string_view(field).substr(0, blank), scheme))
    return std::nullopt;
  return std::string(zr::TrimBlanks(std::string_view(field).substr(blank)));
}

int Base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : -1;
}

std::optional<std::string> FromBase64(std::string_view text) {
  while (text.ends_with('=')) text.remove_suffix(1);
  std::string bytes;
  std::uint32_t bits = 0;
  int held = 0;
  for (const char c : text) {
    const int digit = Base64Digit(c);
    if (digit < 0) return std::nullopt;
    bits = (bits << 6U) | static_cast<std::uint32_t>(digit);
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>((bits >> static_cast<unsigned>(held)) & 0xFFU);
  }
  return bytes;
}

void Demand(Answer& answer, std::string_view scheme, std::string_view realm) {
  std::string challenge = std::string(scheme) + " realm=\"";
  for (const char c : realm) challenge.append(c == '"' || c == '\\' ? "\\" : "").append(1, c);
  answer.Status(401).Header("WWW-Authenticate", challenge + "\"");
}

void CheckRealm(std::string_view realm) {
  if (realm.find_first_of(std::string_view("\0\r\n", 3)) != std::string_view::npos)
    throw ServerError("the realm of an authentication has a line end");
}

}  // namespace

bool SameSecret(std::string_view given, std::string_view expected) {
  // As many steps as the given text has bytes, whatever they are. What is compared with is walked
  // through in a circle, so that its length does not show either.
  volatile unsigned different = given.size() == expected.size() ? 0 : 1;
  const std::string_view text = expected.empty() ? std::string_view("\0", 1) : expected;
  for (std::size_t at = 0, other = 0; at < given.size(); ++at) {
    different = different |
                (static_cast<unsigned char>(given[at]) ^ static_cast<unsigned char>(text[other]));
    other = other + 1 == text.size() ? 0 : other + 1;
  }
  return different == 0;
}

Server::Guard BasicAuthentication(std::string realm, std::map<std::string, std::string> passwords) {
  // Every entry is compared, so that the time does not tell which names there are.
  return BasicAuthentication(
      std::move(realm),
      [known = std::move(passwords)](const std::string& user, const std::string& password) {
        int ok = 0;
        for (const auto& [name, secret] : known)
          ok |= int{SameSecret(user, name)} & int{SameSecret(password, secret)};
        return ok != 0;
      });
}

Server::Guard BasicAuthentication(std::string realm,
                                  std::function<bool(const std::string&, const std::string&)> ok) {
  CheckRealm(realm);
  return [realm = std::move(realm), ok = std::move(ok)](const Request& request, Answer& answer) {
    const std::optional<std::string> encoded = Credentials(request, "basic");
    const std::optional<std::string> pair = encoded ? FromBase64(*encoded) : std::nullopt;
    const std::size_t colon = pair ? pair->find(':') : std::string::npos;
    if (colon != std::string::npos && ok(pair->substr(0, colon), pair->substr(colon + 1))) {
      request.SetUser(pair->substr(0, colon));
      return true;
    }
    Demand(answer, "Basic", realm);
    return false;
  };
}

Server::Guard BearerAuthentication(std::string realm, std::map<std::string, std::string> users) {
  CheckRealm(realm);
  return
      [realm = std::move(realm), users = std::move(users)](const Request& request, Answer& answer) {
        const std::optional<std::string> token = Credentials(request, "bearer");
        const std::string* user = nullptr;
        for (const auto& [known, name] : users)
          if (token && SameSecret(*token, known)) user = &name;
        if (user == nullptr) {
          Demand(answer, "Bearer", realm);
          return false;
        }
        request.SetUser(*user);
        return true;
      };
}

}  // namespace velkoro
