#pragma once
// Requests to other servers.
//
//   std::future<velkoro::Outcome> coming = velkoro::Ask({.url = "https://example.org/search?q=1"});
//   const velkoro::Outcome outcome = coming.get();
//   if (outcome) std::cout << outcome.body;
//   else std::cerr << outcome.error << '\n';
//
// Requests to one server share up to ten connections, which are kept for the next ones.
// Certificates are checked unless that is turned off.
//
// Threads: any. Callbacks run on a thread of the client's, one at a time: they must not hold it up,
// and throw nothing.

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velkoro {

using TextPairs = std::vector<std::pair<std::string, std::string>>;

/// What is asked. All but the URL may be left out.
struct ClientRequest {
  /// http:// or https://, with what else belongs to it: query, encoded characters; or quarn://.
  std::string url;
  /// GET, HEAD, POST, PUT, PATCH or DELETE; empty: POST with fields or a body, else GET.
  std::string method = {};
  TextPairs fields = {};  ///< a form, sent as multipart/form-data
  std::string body = {};  ///< in the place of a form
  std::string type = {};  ///< the media type of the body
  TextPairs headers = {};
  /// From the call to the whole answer, redirections included.
  std::chrono::milliseconds timeLimit = std::chrono::seconds(60);
  /// Whether the certificate of an https server is checked, with its name; and a PEM file of
  /// certificates that are trusted in the place of the system's.
  bool verify = true;
  std::string trusted = {};
  /// So many redirections are followed; the one behind them is the outcome. A POST is asked for
  /// with GET where it is sent elsewhere by 301, 302 or 303; "Authorization" and "Cookie" stay with
  /// the server that they were given for, and https does not lead to http.
  int redirects = 0;
};

/// What became of a request: an answer, whatever its status, or an error.
struct Outcome {
  int status = 0;     ///< 0: there is no answer
  std::string error;  ///< why not, "connection refused (Connection refused)"; else empty
  TextPairs headers;  ///< names in lower case, in their order
  std::string body;   ///< decoded from what it was sent in
  std::string url;    ///< of the answer, behind the redirections that were followed

  /// Whether it was answered with a status below 400.
  explicit operator bool() const noexcept { return status >= 200 && status < 400; }
  /// The first header field of that name (in lower case).
  std::string Header(std::string_view name, std::string_view whenAbsent = {}) const;
};

/// What cannot be asked at all, in one sentence: a malformed URL, method or header field.
class ClientError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Connections of its own. Most programs need none: Ask() uses one that all share.
class Client {
 public:
  Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  /// What is still out ends with the error "stopped". Not called by a callback.
  ~Client();

  /// Throws ClientError. Everything that can happen to the request later is an Outcome.
  std::future<Outcome> Ask(ClientRequest request);
  void Ask(ClientRequest request, std::function<void(Outcome)> done);

 private:
  class Asking;
  const std::unique_ptr<Asking> asking_;
};

/// The same with connections that the whole process shares, made by the first call.
std::future<Outcome> Ask(ClientRequest request);
void Ask(ClientRequest request, std::function<void(Outcome)> done);

}  // namespace velkoro
