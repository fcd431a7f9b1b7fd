// Reads an XML document, looks elements up, changes it and writes it back.

#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "markup/parse.h"

int main() {
  std::istringstream input(
      "<?xml version=\"1.0\"?>\n"
      "<house>\n"
      "  <room name=\"hall\"><lamp watt=\"40\"/></room>\n"
      "  <room name=\"attic\"><lamp watt=\"25\"/><lamp watt=\"60\"/></room>\n"
      "</house>\n");

  std::string error;
  const std::unique_ptr<ZrXMLComplexElement> root = zr::ParseStream(input, "xml", error);
  auto* const house = dynamic_cast<ZrXMLGenericElement*>(root.get());
  if (house == nullptr) {
    std::cerr << "house.xml: " << error << '\n';
    return 1;
  }

  // Steps of a path name the current element or its children; a condition picks by attribute.
  const std::unique_ptr<ZrXMLElementList> found = house->Query("house.room[name=\"attic\"].lamp");
  for (const ZrXMLGenericElement* lamp : *found) {
    std::cout << lamp->AttributeValue("watt", "?") << " W\n";
  }

  ZrXMLElementList lamps;
  house->FindWithAttribute(lamps, "watt");
  std::cout << lamps.size() << " lamps\n";

  ZrXMLGenericElement* const hall = house->FirstWithAttributeValue("name", "hall");
  hall->SetAttribute("floor", "0");
  hall->Adopt(std::make_unique<ZrXMLGenericElement>("door", true));
  house->DeleteChildByAttribute("name", "attic");
  house->Write(std::cout);
  std::cout << '\n';
}
