#include "tests/torture/bed.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "http/protocol_kind.h"
#include "http/response_head.h"
#include "http/server_head.h"
#include "platform/pipe.h"
#include "tests/support/wait.h"
#include "tests/torture/line.h"

namespace zrtest {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::string_view kSmall = "a file of fifty bytes, read again and again .....\n";

std::int64_t ProcessTime() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return used.tv_sec * 1'000'000'000L + used.tv_nsec;
}

std::string MakeGate(const std::string& path) {
  if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("no gate");
  return path;
}

}  // namespace

bool Torture() { return std::getenv("VELKORO_TORTURE") != nullptr; }

// ---- Counting ----------------------------------------------------------------------------------

Counts TortureBed::Count() {
  Counts counts = Counts::OfProcess();
  counts.values[Counts::kConnections] = transceiver_.ConnectionCount();
  counts.values[Counts::kTemporaryFiles] = Counts::NamesIn(folder_.Path("tmp"));
  counts.values[Counts::kBudget] = transceiver_.Memory()->Used();
  return counts;
}

// A few milliseconds of doing nothing: 60 % of them, at most, may be work.
bool TortureBed::IsIdle() {
  constexpr milliseconds kLook{4};
  const std::int64_t before = ProcessTime();
  poll(nullptr, 0, kLook.count());
  return ProcessTime() - before < std::chrono::nanoseconds(kLook).count() * 6 / 10;
}

// What is still there after five times the limit is left behind; what took longer than the limit
// was slow, which a busy machine may have been as well.
std::string TortureBed::Settle(std::string& slow) {
  std::string left;
  const auto start = steady_clock::now();
  {
    ZrLock hold(bystander_->turn);  // its own connection may have gone with the time
    WaitFor(
        [&] {
          left = Count().MoreThan(before_);
          if (left.empty() && !IsIdle()) left = "no descriptor, but CPU time";
          return left.empty();
        },
        std::chrono::duration_cast<std::chrono::seconds>(5 * kSettleLimit));
  }
  if (!left.empty()) return "left behind: " + left + Counts::OpenFiles();
  const auto took = std::chrono::ceil<milliseconds>(steady_clock::now() - start);
  if (took > kSettleLimit) slow = "settled after " + std::to_string(took.count()) + " ms";
  const std::int64_t waited = bystander_->TakeWorst();
  if (waited > kBystanderLimit.count()) {
    slow += " the bystander waited " + std::to_string(waited) + " ms";
  }
  return {};
}

// ---- The bystander -----------------------------------------------------------------------------

Bystander::Bystander(int port) : port_(port) {
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, echo_) != 0) {
    throw std::runtime_error("no pair of sockets");
  }
  echoing_ = std::thread([this] {
    char byte = 0;
    while (read(echo_[1], &byte, 1) == 1 && write(echo_[1], &byte, 1) == 1) continue;
  });
  thread_ = std::thread([this] { Loop(); });
}

Bystander::~Bystander() {
  ended_ = true;
  thread_.join();
  close(echo_[0]);
  echoing_.join();
  close(echo_[1]);
}

std::int64_t Bystander::TakeWorst() {
  const std::int64_t echo = worstEcho_.exchange(0);
  return std::max<std::int64_t>(0, worst_.exchange(0) - 3 * echo) / 1'000'000;
}

void Bystander::Loop() {
  while (!ended_) {
    {
      ZrLock hold(turn);
      worst_ = std::max<std::int64_t>(worst_, Request());
      ++requests;
      worstEcho_ = std::max<std::int64_t>(worstEcho_, Echo());
    }
    poll(nullptr, 0, 1);
  }
}

std::int64_t Bystander::Request() {
  const auto start = steady_clock::now();
  // A connection that was kept may have reached its time limit meanwhile.
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!line_) line_ = std::make_unique<RawClient>(port_);
    if (line_->Send("GET /small HTTP/1.1\r\n\r\n") && line_->ReadUntil(kSmall).ends_with(kSmall)) {
      return std::chrono::nanoseconds(steady_clock::now() - start).count();
    }
    line_.reset();
  }
  return std::chrono::nanoseconds(std::chrono::minutes(1)).count();
}

std::int64_t Bystander::Echo() {
  const auto start = steady_clock::now();
  char byte = 0;
  if (write(echo_[0], &byte, 1) != 1 || read(echo_[0], &byte, 1) != 1) return 0;
  return std::chrono::nanoseconds(steady_clock::now() - start).count();
}

// ---- The servers -------------------------------------------------------------------------------

class TortureBed::Pages : public ZrRequestApplication {
 public:
  ZrCommandHandler* nullQuery(const std::string&) override { return nullptr; }
  void dispatchToHandler(const std::string&, ZrXHeader&, ZrXResponseHeader&,
                         const std::string&) override {}
  bool hasStoredValue(const std::string& name) override {
    return name == "page" || name == "bigpage";
  }
  bool fillFromStorage(const std::string& name, ZrXHeader& head) override {
    head.SetBodyText(std::string(name == "page" ? 1000 : kBigSize, 'p'));
    return true;
  }
};

int TortureClient::HandleMessage(const std::string& name, std::shared_ptr<ZrXHeader> message) {
  if (message->kind != ZrMessageKind::kRequest || message->ProtocolKind() != zr::kProtocolSocket) {
    return AskingClient::HandleMessage(name, message);
  }
  const auto answer = message->MakeResponse();
  const std::string asked(message->body->Unread());
  answer->SetBodyText(asked == "big" ? std::string(TortureBed::kBigSize, 'r') : asked);
  SendAnswer(*message, answer);
  return 1;
}

TortureBed::TortureBed()
    : gate_(MakeGate(folder_.Path("gate"))),
      pages_(std::make_unique<Pages>()),
      scripts_(std::make_shared<ZrCgi>(scheduler_)),
      transceiver_(scheduler_, zr::ProtocolServers(zr::OutgoingPools()), clock) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  TestCertificate();
  Line(1, Wire::kPlain).WaitUntilTaken();  // opens what it asks the system with
  folder_.Write("tmp/empty", "");
  setenv("TMPDIR", folder_.Path("tmp").c_str(), 1);
  folder_.Write("www/small", kSmall);
  folder_.Write("www/file", std::string(1000, 'f'));
  folder_.Write("www/big", std::string(kBigSize, 'f'));
  const auto program = [this](const char* name, const std::string& commands) {
    folder_.WriteProgram(std::string("www/cgi-bin/") + name,
                         R"(printf 'A: b\r\n\r\n'; )" + commands);
  };
  program("gate", "read line <" + gate_ + "; exec cat " + folder_.Path("www/file"));
  program("run", "exec cat " + folder_.Path("www/file"));
  program("big", "exec cat " + folder_.Path("www/big"));

  const auto reports = [this](ZrServerCallback_t& record) {
    if (record.kind != ZrServerCallback_t::kListening) return true;
    ZrLock hold(portLock_);
    for (const auto& entry : zr::kProtocolSchemes) {
      if (entry.scheme == record.info.Get("protocolstring")) {
        ports_[entry.kind] = std::stoi(record.info.Get("port"));
      }
    }
    ++listening_;
    return true;
  };
  ZrOptionMap options;
  options.Set("_baseDirectoryHTTP", folder_.Path("www"));
  client = zr::MakeJob<TortureClient>(reports, options, pages_.get(),
                                      std::make_shared<ZrStaticFiles>(scripts_));
  transceiver_.AddClient(client);
  for (const std::uint32_t kind : {zr::kProtocolHttp, zr::kProtocolHttps, zr::kProtocolSocket}) {
    const auto head = zr::MakeJob<ZrXServerHeader>(true, kind);
    head->SetOption("tcp_port", "0");
    head->SetOption("cacertificate", TestCertificate().certificate);
    head->SetOption("privatekey", TestCertificate().privateKey);
    client->OpenServer(head);
  }
  if (!WaitFor([this] { return listening_ == 3; })) throw std::runtime_error("no servers");
  bystander_ = std::make_unique<Bystander>(Port(zr::kProtocolHttp));
  WarmUp();
}

// As the application ends.
TortureBed::~TortureBed() {
  bystander_.reset();
  transceiver_.StopServers();
  scripts_->Stop();
  transceiver_.RemoveClient(client);
  scheduler_.Stop();
  unsetenv("TMPDIR");
}

// Threads, queues and tables are as they will be: the pool keeps all the idle threads it keeps.
void TortureBed::WarmUp() {
  std::atomic<std::size_t> begun = 0;
  std::vector<std::uint64_t> tasks;
  constexpr std::size_t kTasks = 2 * ZrWorkerPool::kKeptThreads;
  for (std::size_t i = 0; i < kTasks; ++i) {
    tasks.push_back(scheduler_.Submit(
        [&begun](ZrRinvalJobParametersAndResult* record) {
          ++begun;
          WaitFor([&begun] { return begun == kTasks; });
          return record;
        },
        nullptr, {}));
  }
  for (const std::uint64_t task : tasks) {
    scheduler_.WaitDone(task);
    scheduler_.FetchResult(task);
  }
  // A message that goes with its connection, for the thread that such things need once.
  RawClient half(Port(zr::kProtocolHttp));
  half.Send("GET /");
  for (const std::uint32_t kind : {zr::kProtocolHttp, zr::kProtocolHttps, zr::kProtocolSocket}) {
    client->SendMessage(AskingBed::Request(Port(kind), "/cgi-bin/run", "warm", kind));
  }
  WaitFor([this] { return client->Outcomes().size() == 3; });
  Pass(std::chrono::hours(1));  // the workers of our own requests go
  // What counts from now on has the bystander's connection in it.
  const bool rests = WaitFor([this] {
    ZrLock hold(bystander_->turn);
    before_ = Count();
    return transceiver_.ConnectionCount() == 1 && IsIdle() && Count().values == before_.values;
  });
  if (!rests) throw std::runtime_error("the bed does not come to rest");
  bystander_->TakeWorst();
}

bool TortureBed::WaitForAnother() {
  return WaitFor([this] {
    ZrLock hold(bystander_->turn);
    return transceiver_.ConnectionCount() > before_.values[Counts::kConnections];
  });
}

// What the server was just about to do may count as traffic behind the first pass. The bystander's
// own connection has reached its limit as well: who is alone is told when it has asked again.
bool TortureBed::PassAllLimits() {
  bool alone = false;
  for (int pass = 0; pass < 3 && !alone; ++pass) {
    const std::uint64_t requests = Pass(kAllLimits);
    const auto deadline = steady_clock::now() + kSettleLimit / 3;
    while (!alone && steady_clock::now() < deadline) {
      poll(nullptr, 0, 1);
      ZrLock hold(bystander_->turn);
      alone = bystander_->requests > requests &&
              transceiver_.ConnectionCount() <= before_.values[Counts::kConnections];
    }
  }
  return alone;
}

std::uint64_t TortureBed::Pass(std::chrono::seconds time) {
  ZrLock hold(bystander_->turn);
  clock.Advance(time);
  transceiver_.WakeHousekeeper();
  return bystander_->requests;
}

// ---- The gate ----------------------------------------------------------------------------------

bool Gate::WaitForProgram() {
  return WaitFor([this] {
    end_ = ZrDescriptor(open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    return end_.IsOpen();
  });
}

void Gate::Open() {
  // The program may have been ended meanwhile.
  if (end_.IsOpen()) static_cast<void>(zr::WritePipe(end_.Get(), "\n"));
}

bool Gate::WaitUntilGone() {
  pollfd entry{end_.Get(), 0, 0};
  return poll(&entry, 1, static_cast<int>(5 * kSettleLimit.count())) == 1;
}

}  // namespace zrtest
