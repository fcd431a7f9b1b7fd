// A program that answers a request with what the request carried: the body of a POST, the query of
// a GET. Head lines and the empty line behind them end with CR LF.

#include <array>
#include <cstdlib>
#include <iostream>
#include <string_view>

namespace {

std::string_view Variable(const char* name, std::string_view otherwise = "") {
  const char* value = std::getenv(name);
  return value != nullptr ? std::string_view(value) : otherwise;
}

}  // namespace

int main() {
  std::ios::sync_with_stdio(false);
  std::cout << "Content-Type: " << Variable("CONTENT_TYPE", "text/plain") << "\r\n\r\n";
  if (Variable("REQUEST_METHOD") == "GET") {
    std::cout << Variable("QUERY_STRING");
    return 0;
  }
  // Written as it is read: no body is too large.
  std::array<char, 65536> piece;
  do {
    std::cin.read(piece.data(), piece.size());
    std::cout.write(piece.data(), std::cin.gcount());
  } while (std::cin && std::cout);
  return 0;
}
