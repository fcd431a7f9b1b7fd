#pragma once
// A server in a program: routes to handlers, form commands, pages and the files of a directory.
//
//   velkoro::Server server({.listen = {"http://127.0.0.1:8080"}, .directory = "www"});
//   server.Handle("GET", "/hello/{name}", [](const velkoro::Request& request,
//                                            velkoro::Answer& answer) {
//     answer.Text("Hello " + request.Path("name"));
//   });
//   std::cout << server.Start() << '\n';
//
// Everything is set before Start(): what is wrong with an option, a route or a file is thrown
// there, as ServerError with one clear sentence, never met by the first request.
//
// Threads. Handlers run on a pool of their own, several at once, and never on a thread that serves
// others: they may take their time. A Request and its Answer belong to one thread at a time.

#include <charconv>
#include <chrono>
#include <cstddef>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

namespace velkoro {

class Document;  // of <velkoro/documents.h>
class Exchange;  // a request with its answer, inside
class Later;
class Stream;

/// What is wrong with a server, in one sentence: "the port 80 of http://127.0.0.1:80 is taken or
/// not allowed".
class ServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Thrown by a handler, it is no fault of the program: the request is answered with that status and
/// the sentence as text. Request throws it for what a client left out.
class RequestError : public std::runtime_error {
 public:
  RequestError(int status, const std::string& sentence)
      : std::runtime_error(sentence), status_(status) {}
  int Status() const noexcept { return status_; }

 private:
  int status_;
};

enum class Semantics {
  kStandard,  ///< What browsers, proxies and tools expect of HTTP/1.1.
  /// The system's own small dialect: GET and POST, answers without fields, statuses 200, 201, 303,
  /// 400, 404, 417, 500 and 502; another status is sent as 500.
  kMinimal,
};

/// How a server is set up. Every member has a default that works.
struct ServerOptions {
  /// Where it listens: http://ADDRESS:PORT or https://ADDRESS:PORT; port 0 lets the system choose.
  /// Connections are taken at that address alone, which may be a name that this machine has;
  /// "0.0.0.0" are all of IPv4, "[::]" all there are.
  std::vector<std::string> listen = {"http://127.0.0.1:8080"};
  /// The directory whose files are served where no route is; none when empty.
  std::string directory = {};
  /// The PEM files of https: the certificate, with intermediate ones behind it, and its key. A
  /// file that is named must be there, whatever is listened at.
  std::string certificate = {};
  std::string privateKey = {};
  /// Runs the .php files of the directory; a name is looked up on PATH. One other than the default
  /// must be there. Programs of the directory's folder cgi-bin/ run as well.
  std::string php = "php-cgi";
  /// The rules by which requests are read and answers written.
  Semantics semantics = Semantics::kStandard;
  /// Shows the first address in the user's browser once the server listens.
  bool openBrowser = false;
  /// The threads that handlers run on; 0: one for each core. They are started as they are needed.
  std::size_t handlerThreads = 0;
  /// A request that no handler has answered after this time, waiting for a thread included, is
  /// answered with 503, and what the handler says later is dropped. 0: never.
  std::chrono::milliseconds handlerLimit = std::chrono::seconds(60);
  /// How long the destructor lets requests in progress end; see Server::Stop().
  std::chrono::milliseconds grace = std::chrono::seconds(5);
  /// Takes each line of the access log, without line end, on the thread that sent the answer. None
  /// is kept without.
  std::function<void(std::string_view)> log = {};
};

/// A file that came with a form.
struct Upload {
  std::string field;       ///< the name of the form's field
  std::string name;        ///< what the file is called at the sender; not to be trusted as a path
  std::string type;        ///< its media type, as the sender says
  std::string_view bytes;  ///< valid as long as the request

  /// Puts the bytes into a file, whole or not at all. Throws ServerError when it cannot be written.
  void SaveTo(const std::string& path) const;
};

/// One end of a connection.
struct Endpoint {
  std::string address;
  int port = 0;
};

/// What both ends of a connection agreed on.
struct TlsFacts {
  std::string version;     ///< "TLSv1.3"
  std::string cipher;      ///< "TLS_AES_256_GCM_SHA384"
  std::string serverName;  ///< the host that the client asked for; empty when it named none
};

/// Set by Answer::SetCookie(). The defaults are the careful ones.
struct Cookie {
  std::string name;
  std::string value;
  std::string path = "/";
  std::string domain = {};                                      ///< empty: this host alone
  std::optional<std::chrono::seconds> lifetime = std::nullopt;  ///< nothing: until the browser ends
  bool secure = false;                                          ///< sent over https only
  bool httpOnly = true;                                         ///< not shown to scripts
  std::string sameSite = "Lax";                                 ///< "Strict", "Lax" or "None"
};

/// What was asked. Texts are decoded where HTTP encodes them.
class Request {
 public:
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  /// "GET", "HEAD", "POST", "PUT", "PATCH", "DELETE" or "OPTIONS".
  std::string_view Method() const;
  /// The target as it was sent, "/hello/Ada?n=1".
  std::string Target() const;
  /// Its path, without the query.
  const std::string& Path() const;
  /// The part of the path that stands for {name} in the route. Throws std::logic_error when the
  /// route has no such name.
  std::string Path(std::string_view name) const;
  /// The same as a number. One that it is not leads nowhere: RequestError 404.
  template <class T>
  requires std::is_arithmetic_v<T> T Path(std::string_view name)
  const { return As<T>(name, Path(name), 404); }
  /// What stands behind "?", as it was sent.
  const std::string& Query() const;

  /// A field of the query or of a form in the body; of several with that name the last one.
  bool Has(std::string_view name) const { return Find(name).has_value(); }
  std::optional<std::string> Find(std::string_view name) const;
  std::string Field(std::string_view name, std::string_view whenAbsent = {}) const;
  /// The same as a number, or as a truth value ("true", "yes", "on", "1" and "false", "no", "off",
  /// "0"). One that is absent, without default, or of another type: RequestError 400.
  template <class T>
  requires std::is_arithmetic_v<T> T Field(std::string_view name)
  const {
    const std::optional<std::string> value = Find(name);
    if (!value) throw RequestError(400, "the field '" + std::string(name) + "' is missing");
    return As<T>(name, *value, 400);
  }
  template <class T>
  requires std::is_arithmetic_v<T> T Field(std::string_view name, T whenAbsent)
  const {
    const std::optional<std::string> value = Find(name);
    return value ? As<T>(name, *value, 400) : whenAbsent;
  }
  /// All of that name, in their order.
  std::vector<std::string> Fields(std::string_view name) const;
  /// The files of the form, empty ones included where they have a name.
  std::vector<Upload> Uploads() const;
  /// The first one of that field.
  std::optional<Upload> File(std::string_view field) const;
  /// What the field "quarncommand" says, for handlers of form commands.
  std::string Command() const { return Field("quarncommand"); }

  /// The first header field of that name (in any case), and all of them.
  std::string Header(std::string_view name, std::string_view whenAbsent = {}) const;
  std::vector<std::string> Headers(std::string_view name) const;
  std::string Cookie(std::string_view name, std::string_view whenAbsent = {}) const;

  /// The body. Up to 1 MiB it lies in memory, a larger one in a temporary file without a name that
  /// the view shows, so that it costs no memory; beyond 256 MiB requests are refused (413). Valid
  /// as long as the request.
  std::string_view Body() const;
  /// The same to be read from front to end. Lives shorter than the request.
  std::unique_ptr<std::istream> BodyStream() const;

  Endpoint Peer() const;
  /// Where the request came in.
  Endpoint Local() const;
  /// Whether it came through TLS.
  bool Secure() const;
  /// Nothing without TLS, and when the peer has gone.
  std::optional<TlsFacts> Tls() const;
  /// "http" or "https", and the host that was asked for with its port: what a link to this server
  /// begins with.
  std::string Origin() const;

  /// Who is asking, when a function like BasicAuthentication() has found that out.
  const std::string& User() const;
  void SetUser(std::string name) const;

  /// Nobody seems to wait for the answer any more: the peer has closed or reset the connection, the
  /// time limit has passed or the server stops. A peer that has only ended its own side ("nc -N")
  /// cannot be told from one that has closed, and counts as gone; what it is answered is sent to it
  /// all the same, and Stream and Later say no only when the connection is over. Threads: any.
  bool Gone() const;
  /// Has the action called once when that happens, on a thread of the server: it must not wait, and
  /// throw nothing. At once when it has happened. Takes the place of an earlier one.
  void OnGone(std::function<void()> action) const;

 private:
  friend class Exchange;
  explicit Request(Exchange& exchange) : exchange_(exchange) {}
  [[noreturn]] static void Refuse(std::string_view name, int status);
  static std::optional<bool> Truth(std::string_view text);
  template <class T>
  static T As(std::string_view name, const std::string& text, int status);

  Exchange& exchange_;
};

/// What is answered. Set what you need, in any order; when the handler returns it is sent. One that
/// says nothing is a 204 (200 in minimal semantics), an error status without a body gets a page.
class Answer {
 public:
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;

  /// Throws std::invalid_argument for a status below 200 or above 599.
  Answer& Status(int status);
  int Status() const;
  /// Sets a header field in the place of earlier ones of that name, or beside them. Throws
  /// std::invalid_argument for a name that is none and a value with a line end. Length, date and
  /// what concerns the connection are the server's own.
  Answer& Header(std::string_view name, std::string_view value);
  Answer& AddHeader(std::string_view name, std::string_view value);
  /// Throws std::invalid_argument for what no cookie may hold.
  Answer& SetCookie(const Cookie& cookie);

  /// The body, in the place of an earlier one.
  Answer& Text(std::string text) { return Body(std::move(text), "text/plain; charset=utf-8"); }
  Answer& Html(std::string page) { return Body(std::move(page), "text/html; charset=utf-8"); }
  Answer& Html(const Document& page);
  Answer& Json(std::string text) { return Body(std::move(text), "application/json"); }
  Answer& Body(std::string bytes, std::string_view type);
  /// The file, with its type, its version and the parts that are asked for; 404 when there is none.
  /// The path is the handler's: what a client says must not reach it unchecked.
  Answer& File(const std::string& path);
  /// Sends the client elsewhere. Throws std::invalid_argument for a status that is none of 301,
  /// 302, 303, 307 and 308.
  Answer& Redirect(std::string_view location, int status = 303);

  /// The answer comes later, from any thread, by what this returns: the handler returns without
  /// one. Called once: std::logic_error when the answer is deferred or sent already.
  Later Defer();
  /// The head goes out as it stands, and the body by what this returns, piece by piece while it is
  /// made. A header field "Content-Length" says how much of it comes, where that is known. Called
  /// once, and by the Later of an answer that is deferred: std::logic_error otherwise.
  Stream Begin();

 private:
  friend class Exchange;
  explicit Answer(Exchange& exchange) : exchange_(exchange) {}

  Exchange& exchange_;
};

/// An answer that comes later. Copies are one; when the last one goes unsent while somebody waits,
/// the answer is a 500 and told like a handler that failed, on that thread. It may outlive the
/// server: nothing is sent then. Threads: one at a time.
class Later {
 public:
  Answer& operator*() const;
  Answer* operator->() const { return &**this; }
  const velkoro::Request& Request() const;
  /// Sends the answer. No when it was sent before or cannot reach anybody any more.
  bool Send() const;

 private:
  friend class Answer;
  struct Share;
  explicit Later(std::shared_ptr<Share> share) : share_(std::move(share)) {}
  std::shared_ptr<Share> share_;
};

/// A body that is written while it is made. It may be moved to another thread, and the handler
/// return. The time limit of handlers ends with Answer::Begin(). In minimal semantics, whose heads
/// say how long the body is, it is kept until the end. Threads: one at a time.
class Stream {
 public:
  Stream(Stream&& other) noexcept;
  Stream& operator=(Stream&&) = delete;
  /// Ends the body, or, while an exception passes, breaks it off.
  ~Stream();

  /// Sends the piece; waits while the client does not read what was sent before. No: nobody reads
  /// any more, or no more than there was (a HEAD request, the length): End() it then.
  bool Write(std::string_view piece);
  /// Nobody can read it any more: the connection is over, or the server stops.
  bool Gone() const;
  /// The body is complete.
  void End();
  /// It is not, and the client shall see that.
  void Abort();

 private:
  friend class Answer;
  explicit Stream(std::shared_ptr<Exchange> exchange);
  std::shared_ptr<Exchange> exchange_;  // none once it has ended
  int exceptions_;                      // that passed when it began
};

/// What happens to a server.
struct Event {
  enum class Kind {
    kListening,  ///< `text` is the URL.
    kConnected,  ///< A peer was accepted; `text` is its address and port.
    /// A handler threw, or let a Later go; `text` is one line that says where and why, with control
    /// bytes escaped. Told of each one. On standard error, where it stands as well, no more than
    /// five such lines come in a second, and behind them one that counts the others.
    kHandlerFailed,
  };
  Kind kind;
  std::string text;
};

class Server {
 public:
  using Options = ServerOptions;
  using Handler = std::function<void(const Request&, Answer&)>;
  /// No: the answer is complete, and the handler is not asked.
  using Guard = std::function<bool(const Request&, Answer&)>;
  /// Is shown the answer, and leaves it as it is.
  using Witness = std::function<void(const Request&, const Answer&)>;

  /// Throws ServerError for a malformed address, a directory or certificate that cannot be used,
  /// and https without one.
  explicit Server(Options options);
  Server() : Server(Options()) {}
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  /// Stops. Not called by a handler.
  ~Server();

  /// Answers requests of that method for paths of that pattern: "/", then pieces with "/" between
  /// them, each a text, or {name} for any one piece, and as the last {rest...} for all that follow,
  /// none included. The most literal route wins. A GET route answers HEAD as well; OPTIONS and the
  /// refusal of other methods (405) follow from the routes. Routes come before commands, commands
  /// before files. Throws ServerError for a method or pattern that is none, a second route for the
  /// same paths, and after Start(), like all that follow.
  Server& Handle(std::string_view method, std::string_view pattern, Handler handler);
  /// Answers form commands: requests for whatever path whose field "quarnid" has that name.
  Server& Command(std::string_view name, Handler handler);
  /// Answers GET /NAME with this page.
  Server& Page(std::string_view name, std::string html);

  /// Called before every handler, in the order in which they were set, but not before files and
  /// refusals; with a path, before whatever answers that path and those below it, those included:
  /// Before("/", guard) stands before everything.
  Server& Before(Guard guard);
  Server& Before(std::string_view path, Guard guard);
  /// Called when an answer of a handler is complete, right before it is sent.
  Server& After(Witness witness);
  /// Called on a thread of the server, which it must not hold up. What it throws is a line on
  /// standard error.
  Server& OnEvent(std::function<void(const Event&)> observer);

  /// Returns the first URL once the server listens everywhere. Throws ServerError when it cannot.
  /// Called once.
  std::string Start();
  /// Takes no further connection, lets requests in progress end for that long, answers the rest
  /// with 503, and waits for handlers that still run: they see Request::Gone(). Called again it
  /// does nothing. Throws std::logic_error when a handler or another function that the server calls
  /// does.
  void Stop(std::chrono::milliseconds grace = std::chrono::seconds(5));
  /// Of the first address, the second one of all; 0 and empty while the server does not listen.
  int Port() const;
  std::string Url() const;
  std::vector<std::string> Urls() const;

 private:
  class Running;
  std::unique_ptr<Running> running_;
};

/// Whether both texts are equal, in a time that does not tell where they differ.
bool SameSecret(std::string_view given, std::string_view expected);
/// Guards that let those through who are known, set User() and answer others with 401. `realm` is
/// shown by browsers. The passwords of Basic authentication travel in the clear without https.
Server::Guard BasicAuthentication(std::string realm, std::map<std::string, std::string> passwords);
Server::Guard BasicAuthentication(
    std::string realm,
    std::function<bool(const std::string& user, const std::string& password)> ok);
/// `users` are those that the tokens belong to.
Server::Guard BearerAuthentication(std::string realm, std::map<std::string, std::string> users);

template <class T>
T Request::As(std::string_view name, const std::string& text, int status) {
  if constexpr (std::is_same_v<T, bool>) {
    if (const std::optional<bool> truth = Truth(text)) return *truth;
  } else {
    T number{};
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    if (result.ec == std::errc() && result.ptr == end) return number;
  }
  Refuse(name, status);
}

}  // namespace velkoro
