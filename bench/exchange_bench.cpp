// Whole exchanges over the loopback: a file of 1 KiB, asked for again and again on kept connections
// of this very process, which also runs the server. Each client thread sends one request on all
// its connections and then takes their answers, so that up to `connections` requests for each
// thread are at the server at once. server_us is the CPU time that one exchange takes of the
// server's threads, the system's part of it included: that of the process without its clients'.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <velkoro/server.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/certificate.h"

namespace {

constexpr std::string_view kRequest =
    "GET /file.bin HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: */*\r\n\r\n";
constexpr std::size_t kFileBytes = 1024;

void Must(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

double CpuSeconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// A kept connection. The first exchange tells how long the answers are.
class Client {
 public:
  Client(int port, SSL_CTX* tls) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Must(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
         "no connection");
    if (tls != nullptr) {
      tls_.reset(SSL_new(tls));
      SSL_set_fd(tls_.get(), socket_);
      Must(SSL_connect(tls_.get()) == 1, "no handshake");
    }
    Ask();
    std::string head;
    while (head.find("\r\n\r\n") == head.npos) head.append(buffer_.data(), Read(buffer_.size()));
    answerBytes_ = head.find("\r\n\r\n") + 4 + kFileBytes;
    for (std::size_t got = head.size(); got < answerBytes_;) got += Read(answerBytes_ - got);
  }
  ~Client() {
    tls_.reset();
    close(socket_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void Ask() {
    const int size = static_cast<int>(kRequest.size());
    const auto sent = tls_ ? SSL_write(tls_.get(), kRequest.data(), size)
                           : send(socket_, kRequest.data(), kRequest.size(), MSG_NOSIGNAL);
    Must(sent == size, "a request is not taken");
  }
  void TakeAnswer() {
    std::size_t got = Read(answerBytes_);
    Must(std::string_view(buffer_.data(), got).starts_with("HTTP/1.1 200 "), "no such answer");
    while (got < answerBytes_) got += Read(answerBytes_ - got);
  }

 private:
  std::size_t Read(std::size_t most) {
    const auto got = tls_ ? SSL_read(tls_.get(), buffer_.data(), static_cast<int>(most))
                          : recv(socket_, buffer_.data(), most, 0);
    Must(got > 0, "an answer is cut short");
    return static_cast<std::size_t>(got);
  }

  const int socket_;
  std::unique_ptr<SSL, decltype(&SSL_free)> tls_{nullptr, &SSL_free};
  std::size_t answerBytes_ = 0;
  std::array<char, 4096> buffer_{};
};

/// The server, and for each client thread its connections.
class Bed {
 public:
  Bed(bool tls, std::int64_t connections, int threads) {
    Must(mkdtemp(folder_.data()) != nullptr, "no temporary folder");
    const zr::CertificateFiles keys = zr::EnsureSelfSignedCertificate(folder_ + "/keys");
    std::filesystem::create_directory(folder_ + "/site");
    std::ofstream(folder_ + "/site/file.bin") << std::string(kFileBytes, 'x');
    server_ = std::make_unique<velkoro::Server>(velkoro::ServerOptions{
        .listen = {tls ? "https://127.0.0.1:0" : "http://127.0.0.1:0"},
        .directory = folder_ + "/site",
        .certificate = keys.certificate,
        .privateKey = keys.privateKey,
        .log = [](std::string_view line) { benchmark::DoNotOptimize(line.data()); }});
    server_->Start();
    clients.resize(static_cast<std::size_t>(threads));
    for (auto& own : clients)
      for (std::int64_t i = 0; i < connections; ++i)
        own.push_back(std::make_unique<Client>(server_->Port(), tls ? context_.get() : nullptr));
  }
  ~Bed() {
    clients.clear();
    server_.reset();
    std::filesystem::remove_all(folder_);
  }

  std::vector<std::vector<std::unique_ptr<Client>>> clients;

 private:
  std::string folder_ = std::filesystem::temp_directory_path() / "exchange_bench_XXXXXX";
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{SSL_CTX_new(TLS_client_method()),
                                                             &SSL_CTX_free};
  std::unique_ptr<velkoro::Server> server_;
};

std::unique_ptr<Bed> bed;  // of the run in progress

void Open(const benchmark::State& state) {
  bed = std::make_unique<Bed>(state.range(0) != 0, state.range(1), state.threads());
}
void Close(const benchmark::State&) { bed.reset(); }

void Exchange(benchmark::State& state) {
  const auto& own = bed->clients[static_cast<std::size_t>(state.thread_index())];
  const auto serverCpu = [&state] {
    const double process = state.thread_index() == 0 ? CpuSeconds(CLOCK_PROCESS_CPUTIME_ID) : 0;
    return process - CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
  };
  const double before = serverCpu();
  for (auto _ : state) {
    for (const auto& client : own) client->Ask();
    for (const auto& client : own) client->TakeAnswer();
  }
  const double asked = static_cast<double>(state.iterations()) * static_cast<double>(own.size());
  state.counters["requests"] = benchmark::Counter(asked, benchmark::Counter::kIsRate);
  // The parts of all threads are added up.
  state.counters["server_us"] = (serverCpu() - before) * 1e6 / (asked * state.threads());
}
BENCHMARK(Exchange)
    ->ArgNames({"tls", "connections"})
    ->ArgsProduct({{0, 1}, {1, 8, 64}})
    ->ThreadRange(1, 2)
    ->Setup(Open)
    ->Teardown(Close)
    ->UseRealTime();

}  // namespace
