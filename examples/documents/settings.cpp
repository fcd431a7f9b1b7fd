// Keeps settings in a file.

#include <velkoro/store.h>

#include <cstdio>
#include <iostream>

int main() {
  const char* const path = "velkoro-example-settings.xml";
  {
    velkoro::Store store(path);
    store.Set("window.title", "Lamps & more");
    store.Set("server.port", 8080);
    store.Set("server.secure", true);
    store.Save();
  }
  const velkoro::Store store(path);
  std::cout << store.Get("window.title", "untitled") << '\n'
            << store.Get("server.port", 80) + 1 << '\n'
            << store.Get("server.timeout", 2.5) << '\n';
  for (const std::string& name : store.Paths()) std::cout << name << '\n';
  std::remove(path);
}
