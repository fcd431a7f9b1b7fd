// What a program's handler says: velkoro::Answer and Later over the message that goes out.

#include <exception>
#include <utility>

#include "embed/exchange.h"
#include "http/field_syntax.h"
#include "velkoro/documents.h"

namespace velkoro {
namespace {

bool IsRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

/// What may stand in a cookie (RFC 6265, 4.1.1), and in the values of its attributes.
bool IsCookieValue(std::string_view text) {
  for (const char c : text)
    if (c <= 0x20 || c == 0x7F || c == '"' || c == ',' || c == ';' || c == '\\') return false;
  return true;
}
bool IsCookieAttribute(std::string_view text) {
  for (const char c : text)
    if ((c >= 0 && c < 0x20) || c == 0x7F || c == ';') return false;
  return true;
}

}  // namespace

Answer& Answer::Status(int status) {
  exchange_.SetStatus(status);
  return *this;
}

int Answer::Status() const {
  const std::uint64_t status = std::as_const(exchange_).Reply().status;
  return status == 0 ? 200 : static_cast<int>(status);
}

Answer& Answer::Header(std::string_view name, std::string_view value) {
  if (!exchange_.Reply().SetField(name, value))
    throw std::invalid_argument("no header field: " + std::string(name));
  return *this;
}

Answer& Answer::AddHeader(std::string_view name, std::string_view value) {
  if (!exchange_.Reply().AddField(name, value))
    throw std::invalid_argument("no header field: " + std::string(name));
  return *this;
}

Answer& Answer::SetCookie(const Cookie& cookie) {
  const bool site =
      cookie.sameSite == "Strict" || cookie.sameSite == "Lax" || cookie.sameSite == "None";
  if (!zr::IsToken(cookie.name) || !IsCookieValue(cookie.value) ||
      !IsCookieAttribute(cookie.path) || !IsCookieAttribute(cookie.domain) || !site)
    throw std::invalid_argument("no cookie: " + cookie.name);
  std::string text = cookie.name + "=" + cookie.value;
  if (!cookie.path.empty()) text += "; Path=" + cookie.path;
  if (!cookie.domain.empty()) text += "; Domain=" + cookie.domain;
  if (cookie.lifetime) text += "; Max-Age=" + std::to_string(cookie.lifetime->count());
  if (cookie.secure) text += "; Secure";
  if (cookie.httpOnly) text += "; HttpOnly";
  return AddHeader("Set-Cookie", text + "; SameSite=" + cookie.sameSite);
}

Answer& Answer::Html(const Document& page) { return Html(page.Text()); }

Answer& Answer::Body(std::string bytes, std::string_view type) {
  exchange_.SetBody(std::move(bytes), type);
  return *this;
}

Answer& Answer::File(const std::string& path) {
  exchange_.SetFile(path);
  return *this;
}

Answer& Answer::Redirect(std::string_view location, int status) {
  if (!IsRedirect(status))
    throw std::invalid_argument("no status of a redirection: " + std::to_string(status));
  if (!zr::IsFieldValue(location))
    throw std::invalid_argument("no address: " + std::string(location));
  exchange_.Reply().location = location;
  return Status(status);
}

/// The last one of those who may send the answer sees to it that there is one. A second Share is
/// refused before it is there, and leaves the answer to the first one.
struct [[gnu::visibility("hidden")]] Later::Share {
  explicit Share(std::shared_ptr<Exchange> kept) : exchange(std::move(kept)) { exchange->Defer(); }
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;
  ~Share() { exchange->Drop(); }
  const std::shared_ptr<Exchange> exchange;
};

Later Answer::Defer() {
  return Later(std::make_shared<Later::Share>(exchange_.shared_from_this()));
}

Stream Answer::Begin() {
  exchange_.CheckBegin(*this);
  return Stream(exchange_.shared_from_this());
}

Stream::Stream(std::shared_ptr<Exchange> exchange)
    : exchange_(std::move(exchange)), exceptions_(std::uncaught_exceptions()) {
  exchange_->BeginStream();
}

Stream::Stream(Stream&& other) noexcept
    : exchange_(std::move(other.exchange_)), exceptions_(other.exceptions_) {}

Stream::~Stream() {
  if (exchange_) exchange_->EndStream(std::uncaught_exceptions() <= exceptions_);
}

bool Stream::Write(std::string_view piece) { return exchange_ && exchange_->WriteStream(piece); }

bool Stream::Gone() const { return !exchange_ || exchange_->Unreachable(); }

void Stream::End() {
  if (const std::shared_ptr<Exchange> ended = std::move(exchange_)) ended->EndStream(true);
}

void Stream::Abort() {
  if (const std::shared_ptr<Exchange> ended = std::move(exchange_)) ended->EndStream(false);
}

Answer& Later::operator*() const { return share_->exchange->LaterPart(); }

const velkoro::Request& Later::Request() const { return share_->exchange->RequestPart(); }

bool Later::Send() const { return share_->exchange->Send(); }

}  // namespace velkoro
