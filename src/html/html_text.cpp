#include "html/html_text.h"

#include "markup/write.h"

void ZrHTML_text2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::Put(stream, text_);
}

void ZrHTML_text2::WriteText(std::ostream& stream) const { zr::Put(stream, text_); }
