// Reads an XML document, looks elements up, changes it and writes it back.

#include <velkoro/documents.h>

#include <iostream>

int main() {
  velkoro::Document house = velkoro::Document::ReadText(
      "<?xml version=\"1.0\"?>\n"
      "<house>\n"
      "  <room name=\"hall\"><lamp watt=\"40\"/></room>\n"
      "  <room name=\"attic\"><lamp watt=\"25\"/><lamp watt=\"60\"/></room>\n"
      "</house>\n"
      "<!-- measured in May -->\n");

  for (const velkoro::Element& lamp : house.Query("house/room[name=attic]/lamp"))
    std::cout << lamp.Attribute("watt", "?") << " W\n";
  std::cout << house.Query("//lamp").size() << " lamps\n";

  velkoro::Element hall = house.QueryFirst("//room[name=hall]");
  hall.Set("floor", "0");
  hall.Add("note").SetText("lamps < 60 W only");

  // A node that is taken out is a Part, which can be put somewhere else.
  velkoro::Part strong = house.QueryFirst("//lamp[watt=60]").Remove();
  strong.GetElement().Unset("watt");
  hall.First("lamp").InsertBefore(std::move(strong));

  house.Indent();
  house.Write(std::cout);
}
