// Handlers and answers meet in the event loop that the program has anyway.

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <velkoro/client.h>
#include <velkoro/server.h>

#include <iostream>
#include <mutex>

using velkoro::Answer;
using velkoro::Request;

/// Takes work for the thread of the loop, which watches the descriptor.
class Inbox {
 public:
  Inbox() : descriptor_(eventfd(0, EFD_CLOEXEC)) {}
  ~Inbox() { close(descriptor_); }
  int Descriptor() const { return descriptor_; }

  /// From any thread.
  void Put(std::function<void()> work) {
    const std::lock_guard hold(lock_);
    waiting_.push_back(std::move(work));
    eventfd_write(descriptor_, 1);
  }
  /// By the loop, when the descriptor is readable.
  void Do() {
    std::vector<std::function<void()>> now;
    {
      const std::lock_guard hold(lock_);
      eventfd_t count = 0;
      eventfd_read(descriptor_, &count);
      now.swap(waiting_);
    }
    for (const auto& work : now) work();
  }

 private:
  const int descriptor_;
  std::mutex lock_;
  std::vector<std::function<void()>> waiting_;
};

int main() {
  int visits = 0;  // belongs to the loop alone: no lock
  Inbox inbox;
  velkoro::Server server({.listen = {"http://127.0.0.1:0"}});
  server.Handle("POST", "/visits", [&](const Request&, Answer& answer) {
    inbox.Put([&visits, later = answer.Defer()] {
      later->Text(std::to_string(++visits));
      later.Send();
    });
  });
  const std::string url = server.Start();

  const std::function<void()> visit = [&] {
    velkoro::Ask({.url = url + "/visits", .method = "POST"}, [&](const velkoro::Outcome& outcome) {
      inbox.Put([&visit, &visits, body = outcome.body] {
        std::cout << "visit " << body << '\n';
        if (visits < 3) visit();
      });
    });
  };
  visit();
  pollfd watched{inbox.Descriptor(), POLLIN, 0};  // and whatever else the program watches
  for (int turns = 0; turns < 6; ++turns) {       // a real one goes on until the program ends
    poll(&watched, 1, -1);
    inbox.Do();
  }
}
