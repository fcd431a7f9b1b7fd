// Asks for a page:  outgoing URL
// The page goes to standard output; without an answer the reason goes to standard error.

#include <velkoro/client.h>

#include <iostream>

int main(int count, char** arguments) try {
  if (count != 2) return std::cerr << "usage: outgoing URL\n", 2;
  const velkoro::Outcome outcome = velkoro::Ask({.url = arguments[1], .redirects = 5}).get();
  std::cout << outcome.body << std::flush;
  if (outcome.status == 0) std::cerr << outcome.error << '\n';
  return outcome ? 0 : 1;
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}
