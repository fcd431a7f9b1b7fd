// What malformed input and wrong use look like.

#include <velkoro/documents.h>

#include <iostream>

int main() {
  try {
    velkoro::Document::ReadText("<house>\n  <room>hall</house>\n", velkoro::DocumentKind::kXml,
                                "house.xml");
  } catch (const velkoro::DocumentError& e) {
    std::cout << e.what() << " (line " << e.Line() << ")\n";
  }

  velkoro::Document house("house");
  try {
    house.Root().First("cellar").Set("dry", "no");
  } catch (const velkoro::DocumentError& e) {
    std::cout << e.what() << '\n';
  }
  try {
    house.Root().InsertAfter(velkoro::Part::Element("garden"));
  } catch (const velkoro::DocumentError& e) {
    std::cout << e.what() << '\n';
  }
}
