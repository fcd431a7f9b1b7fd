// Notes with search and pictures, for people who log in.
//
//   notes DATABASE add NAME                     adds a person; the password is a line of the input
//   notes DATABASE [URL [CERTIFICATE KEY]]      serves, by default at http://127.0.0.1:8080

#include <velkoro/server.h>

#include <algorithm>
#include <csignal>
#include <iostream>

#include "database.h"
#include "pages.h"

namespace {

using notes::Database;
using velkoro::Answer;
using velkoro::Request;
using velkoro::RequestError;

constexpr const char* kCookie = "session";
constexpr std::size_t kLongestTitle = 200;           // bytes
constexpr std::size_t kLongestText = 1 << 20;        // bytes
constexpr std::size_t kLargestPicture = 10U << 20U;  // bytes

/// By what it is, not by what it is called: nothing but these four is ever sent as a picture.
std::string_view PictureType(std::string_view bytes) {
  if (bytes.starts_with("\x89PNG\r\n\x1a\n")) return "image/png";
  if (bytes.starts_with("\xff\xd8\xff")) return "image/jpeg";
  if (bytes.starts_with("GIF87a") || bytes.starts_with("GIF89a")) return "image/gif";
  if (bytes.starts_with("RIFF") &&
      bytes.substr(std::min<std::size_t>(8, bytes.size()), 4) == "WEBP")
    return "image/webp";
  throw RequestError(415, "a picture must be a PNG, JPEG, GIF or WebP file");
}

/// Whether the request comes from a page of ours: browsers say where a form was sent from.
bool IsOwnForm(const Request& request) {
  const std::string from = request.Header("Origin");
  const std::string own = request.Origin();
  // A proxy in front may speak https where we speak http: the host is what counts.
  const auto host = [](const std::string& origin) {
    const std::size_t at = origin.find("://");
    return at == std::string::npos ? std::string() : origin.substr(at + 3);
  };
  return from.empty() || host(from) == host(own);
}

/// Stands before every handler.
bool Admit(Database& database, const Request& request, Answer& answer) {
  answer.Header("Content-Security-Policy",
                "default-src 'none'; style-src 'self'; img-src 'self'; form-action 'self'; "
                "base-uri 'none'; frame-ancestors 'none'");
  answer.Header("Referrer-Policy", "same-origin").Header("Cache-Control", "no-store");
  if (request.Method() == "POST" && !IsOwnForm(request))
    throw RequestError(403, "the form was sent from another site");
  if (request.Path() == "/login" || request.Path() == "/style.css") return true;
  request.SetUser(database.FindSession(request.Cookie(kCookie)));
  if (!request.User().empty()) return true;
  answer.Redirect("/login");
  return false;
}

void LogIn(Database& database, const Request& request, Answer& answer) {
  const std::string name = request.Field("name");
  const std::optional<bool> known = database.CheckPassword(name, request.Field("password"));
  if (!known) {
    answer.Status(429).Header("Retry-After", "5");
    answer.Html(notes::LoginPage(name, "Too many are logging in. Try again in a moment."));
  } else if (!*known) {
    answer.Status(403).Html(notes::LoginPage(name, "Name and password do not go together."));
  } else {
    const bool secure = request.Secure() || request.Header("X-Forwarded-Proto") == "https";
    answer.Redirect("/").SetCookie({.name = kCookie,
                                    .value = database.OpenSession(name),
                                    .lifetime = std::chrono::hours(30 * 24),
                                    .secure = secure});
  }
}

/// Keeps what a form says: of the note with that id, or a new one for 0.
void Save(Database& database, std::int64_t id, const Request& request, Answer& answer) {
  notes::Note note{id, request.Field("title"), request.Field("text"), {}, {}};
  std::erase(note.text, '\r');  // forms end lines with CR LF
  if (note.title.empty()) throw RequestError(400, "a note needs a title");
  if (note.title.size() > kLongestTitle || note.text.size() > kLongestText)
    throw RequestError(413, "the note is too long");
  std::vector<notes::Picture> pictures;
  for (const velkoro::Upload& upload : request.Uploads()) {
    if (upload.bytes.empty()) continue;
    if (upload.bytes.size() > kLargestPicture)
      throw RequestError(413, "a picture has more than 10 MiB");
    pictures.push_back({PictureType(upload.bytes), upload.bytes});
  }
  const auto saved = database.SaveNote(request.User(), note, pictures);
  if (!saved) throw RequestError(404, "there is no such note");
  answer.Redirect("/notes/" + std::to_string(*saved));
}

void AddRoutes(velkoro::Server& server, Database& database) {
  server.Before(
      [&](const Request& request, Answer& answer) { return Admit(database, request, answer); });
  server.Handle(
      "GET", "/style.css",
      [](const Request&, Answer& answer) {
        answer.Body(notes::kStyle, "text/css").Header("Cache-Control", "max-age=3600");
      });
  server.Handle(
      "GET", "/login",
      [](const Request&, Answer& answer) { answer.Html(notes::LoginPage("", "")); });
  server.Handle("POST", "/login",
                [&](const Request& request, Answer& answer) { LogIn(database, request, answer); });
  server.Handle("POST", "/logout", [&](const Request& request, Answer& answer) {
    database.CloseSession(request.Cookie(kCookie));
    answer.Redirect("/login").SetCookie(
        {.name = kCookie, .value = "", .lifetime = std::chrono::seconds(0)});
  });
  server.Handle(
      "GET", "/",
      [&](const Request& request, Answer& answer) {
        const int page = std::clamp(request.Field("page", 1), 1, 1'000'000);
        const std::string words = request.Field("q");
        answer.Html(notes::ListPage(request.User(), database.FindNotes(request.User(), words, page),
                                    words, page));
      });
  server.Handle(
      "GET", "/new",
      [](const Request& request, Answer& answer) {
        answer.Html(notes::NotePage(request.User(), {}));
      });
  server.Handle("POST", "/notes", [&](const Request& request, Answer& answer) {
    Save(database, 0, request, answer);
  });
  server.Handle(
      "GET", "/notes/{id}",
      [&](const Request& request, Answer& answer) {
        const auto note = database.GetNote(request.User(), request.Path<std::int64_t>("id"));
        if (!note) throw RequestError(404, "there is no such note");
        answer.Html(notes::NotePage(request.User(), *note));
      });
  server.Handle("POST", "/notes/{id}", [&](const Request& request, Answer& answer) {
    Save(database, request.Path<std::int64_t>("id"), request, answer);
  });
  server.Handle("POST", "/notes/{id}/delete", [&](const Request& request, Answer& answer) {
    database.DeleteNote(request.User(), request.Path<std::int64_t>("id"));
    answer.Redirect("/");
  });
  server.Handle("GET", "/pictures/{id}", [&](const Request& request, Answer& answer) {
    auto picture = database.GetPicture(request.User(), request.Path<std::int64_t>("id"));
    if (!picture) throw RequestError(404, "there is no such picture");
    // A picture never changes; the browser keeps it for this person.
    answer.Body(std::move(picture->second), picture->first)
        .Header("Cache-Control", "private, max-age=31536000, immutable");
  });
}

int AddPerson(const std::string& path, const std::string& name) {
  std::string password;
  std::getline(std::cin, password);
  if (password.size() < 8) throw std::runtime_error("a password has at least 8 characters");
  Database(path).SetPassword(name, password);
  return 0;
}

int Serve(const std::vector<std::string>& arguments) {
  // Before any thread starts, so that the signals wait for sigwait().
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  Database database(arguments[0]);
  velkoro::ServerOptions options;
  if (arguments.size() > 1) options.listen = {arguments[1]};
  if (arguments.size() > 3) {
    options.certificate = arguments[2];
    options.privateKey = arguments[3];
  }
  velkoro::Server server(options);
  AddRoutes(server, database);
  std::cout << server.Start() << std::endl;
  int signal = 0;
  sigwait(&ends, &signal);
  return 0;
}

}  // namespace

int main(int count, char** words) try {
  const std::vector<std::string> arguments(words + 1, words + count);
  if (arguments.size() == 3 && arguments[1] == "add") return AddPerson(arguments[0], arguments[2]);
  if (arguments.size() == 1 || arguments.size() == 2 || arguments.size() == 4)
    return Serve(arguments);
  std::cerr << "usage: notes DATABASE add NAME\n"
               "       notes DATABASE [URL [CERTIFICATE KEY]]\n";
  return 2;
} catch (const std::exception& failure) {
  std::cerr << "notes: " << failure.what() << '\n';
  return 1;
}
